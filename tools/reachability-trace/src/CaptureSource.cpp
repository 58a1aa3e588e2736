#include "CaptureSource.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "ArchiveSource.h"
#include "Utf16Source.h"

namespace veranda::reachabilityCache::trace {
namespace {

constexpr std::size_t PEEK_BYTES = 4096;

// The bytes of a file descriptor.
class FileSource : public CaptureSource {
 public:
  FileSource(int fd, std::string name) : fd_(fd), name_(std::move(name)) {}

  long read(char* buffer, std::size_t size) override {
    for (;;) {
      const ssize_t got = ::read(fd_, buffer, size);
      if (got >= 0) {
        return static_cast<long>(got);
      }
      if (errno != EINTR) {
        error_ = "cannot read " + name_ + ": " + std::generic_category().message(errno);
        return -1;
      }
    }
  }

  // Back to the start, where the file allows it.
  bool rewind() const { return ::lseek(fd_, 0, SEEK_SET) == 0; }

 private:
  int fd_;
  std::string name_;
};

// `prefix` first, then what `inner` reads.
class PrefixedSource : public CaptureSource {
 public:
  PrefixedSource(std::unique_ptr<CaptureSource> inner, std::string prefix)
      : inner_(std::move(inner)), prefix_(std::move(prefix)) {}

  long read(char* buffer, std::size_t size) override {
    if (taken_ < prefix_.size()) {
      const std::size_t count = std::min(size, prefix_.size() - taken_);
      std::memcpy(buffer, prefix_.data() + taken_, count);
      taken_ += count;
      return static_cast<long>(count);
    }
    const long got = inner_->read(buffer, size);
    if (got < 0) {
      error_ = inner_->error();
    }
    return got;
  }

 private:
  std::unique_ptr<CaptureSource> inner_;
  std::string prefix_;
  std::size_t taken_ = 0;
};

bool startsWith(std::string_view text, std::string_view prefix) {
  return text.substr(0, prefix.size()) == prefix;
}

// Up to PEEK_BYTES of the start of `source`; false on an error.
bool peek(CaptureSource& source, std::string& start, std::string& error) {
  start.resize(PEEK_BYTES);
  std::size_t filled = 0;
  while (filled < start.size()) {
    const long got = source.read(start.data() + filled, start.size() - filled);
    if (got < 0) {
      error = source.error();
      return false;
    }
    if (got == 0) {
      break;
    }
    filled += static_cast<std::size_t>(got);
  }
  start.resize(filled);
  return true;
}

enum class Encoding { UTF8, UTF8_WITH_MARK, UTF16LE, UTF16BE };

// The encoding of text that starts with `start`: a byte-order mark, or
// UTF-16 without one when every other byte of its first characters is a NUL.
Encoding encodingOf(std::string_view start) {
  if (startsWith(start, "\xEF\xBB\xBF")) {
    return Encoding::UTF8_WITH_MARK;
  }
  if (startsWith(start, "\xFF\xFE")) {
    return Encoding::UTF16LE;
  }
  if (startsWith(start, "\xFE\xFF")) {
    return Encoding::UTF16BE;
  }
  constexpr std::size_t PAIRS = 8;
  if (start.size() < 2 * PAIRS) {
    return Encoding::UTF8;
  }
  bool little = true;
  bool big = true;
  for (std::size_t i = 0; i < 2 * PAIRS; i += 2) {
    little = little && start[i] != '\0' && start[i + 1] == '\0';
    big = big && start[i] == '\0' && start[i + 1] != '\0';
  }
  return little ? Encoding::UTF16LE : big ? Encoding::UTF16BE : Encoding::UTF8;
}

// The text source of `packed`, whose first bytes `start` have been read.
OpenedCapture decoded(std::unique_ptr<CaptureSource> packed, std::string start,
                      OpenedCapture opened) {
  const Encoding encoding = encodingOf(start);
  if (encoding == Encoding::UTF8_WITH_MARK) {
    start.erase(0, 3);
  } else if (encoding == Encoding::UTF16LE || encoding == Encoding::UTF16BE) {
    const bool mark = startsWith(start, "\xFF\xFE") || startsWith(start, "\xFE\xFF");
    opened.encoding = encoding == Encoding::UTF16LE ? "UTF-16LE" : "UTF-16BE";
    opened.source =
        utf16Source(std::make_unique<PrefixedSource>(std::move(packed), start.substr(mark ? 2 : 0)),
                    encoding == Encoding::UTF16BE);
    return opened;
  }
  opened.source = std::make_unique<PrefixedSource>(std::move(packed), std::move(start));
  return opened;
}

// Unpacks the archive that `fd` holds, whose first bytes are `start`; reads
// it a second time, when it can, for a zip without a bug report's text.
OpenedCapture unpacked(int fd, const std::string& name, const std::string& start) {
  OpenedCapture opened;
  for (bool anyText : {false, true}) {
    auto file = std::make_unique<FileSource>(fd, name);
    if (anyText && !file->rewind()) {
      return opened;  // the error of the first try stands
    }
    UnpackedArchive archive = unpackArchive(
        std::make_unique<PrefixedSource>(std::move(file), anyText ? std::string() : start), name,
        anyText);
    if (!archive.source) {
      if (opened.error.empty()) {
        opened.error = archive.error;
      }
      continue;
    }
    opened.error.clear();
    opened.archive = archive.gzip ? "gzip" : "zip";
    opened.entry = archive.entry;
    std::string text;
    if (!peek(*archive.source, text, opened.error)) {
      return opened;
    }
    return decoded(std::move(archive.source), std::move(text), std::move(opened));
  }
  return opened;
}

}  // namespace

OpenedCapture openCapture(int fd, const std::string& name) {
  auto file = std::make_unique<FileSource>(fd, name);
  std::string start;
  OpenedCapture opened;
  if (!peek(*file, start, opened.error)) {
    return opened;
  }
  if (startsWith(start, "PK\x03\x04") || startsWith(start, "\x1F\x8B")) {
    return unpacked(fd, name, start);
  }
  return decoded(std::move(file), std::move(start), std::move(opened));
}

}  // namespace veranda::reachabilityCache::trace
