#include "CaptureSource.h"

#include <archive.h>
#include <archive_entry.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

namespace veranda::reachabilityCache::trace {
namespace {

constexpr std::size_t PEEK_BYTES = 4096;
constexpr std::size_t ARCHIVE_BLOCK = std::size_t{1} << 16;
constexpr std::size_t MAX_MAIN_ENTRY_BYTES = 4096;

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

bool startsWith(std::string_view text, std::string_view prefix) {
  return text.substr(0, prefix.size()) == prefix;
}

bool endsWith(std::string_view text, std::string_view suffix) {
  return text.size() >= suffix.size() && text.substr(text.size() - suffix.size()) == suffix;
}

// `text` on one line: control characters (libarchive's words may end in a
// line feed, a name may hold one) become blanks, and none end it.
std::string oneLine(std::string text) {
  std::replace_if(
      text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x20; }, ' ');
  text.erase(text.find_last_not_of(' ') + 1);
  return text;
}

// An entry at the top of the archive (not in a folder).
bool atTop(std::string_view name) { return name.find('/') == std::string_view::npos; }

// A zip or a gzipped file, unpacked.
class ArchiveSource : public CaptureSource {
 public:
  ArchiveSource(std::unique_ptr<CaptureSource> packed, std::string name)
      : packed_(std::move(packed)), name_(std::move(name)), archive_(archive_read_new()) {
    archive_read_support_filter_gzip(archive_);
    archive_read_support_format_zip(archive_);
    archive_read_support_format_raw(archive_);
  }
  ~ArchiveSource() override { archive_read_free(archive_); }
  ArchiveSource(const ArchiveSource&) = delete;
  ArchiveSource& operator=(const ArchiveSource&) = delete;

  // Finds the entry to read; `anyText`: failing the bug report's, the first
  // other text file at the top. False with error() when there is none.
  bool open(bool anyText) {
    if (archive_read_open(archive_, this, nullptr, &ArchiveSource::pull, nullptr) != ARCHIVE_OK) {
      return fail("cannot unpack");
    }
    std::string named;  // by main_entry.txt
    std::string seen;   // the entries passed over, for the error
    archive_entry* entry = nullptr;
    for (;;) {
      const int status = archive_read_next_header(archive_, &entry);
      if (status == ARCHIVE_EOF) {
        break;
      }
      if (status != ARCHIVE_OK && status != ARCHIVE_WARN) {
        return fail("cannot unpack");
      }
      const char* path = archive_entry_pathname(entry);
      const std::string name = path == nullptr ? "" : path;
      gzip_ = archive_format(archive_) == ARCHIVE_FORMAT_RAW;
      if (gzip_ || name == named ||
          (named.empty() && atTop(name) && startsWith(name, "bugreport") &&
           endsWith(name, ".txt")) ||
          (anyText && atTop(name) && endsWith(name, ".txt") && name != "main_entry.txt" &&
           name != "version.txt")) {
        entry_ = gzip_ ? "" : name;
        return true;
      }
      if (name == "main_entry.txt") {
        named = mainEntry();
        continue;
      }
      if (seen.size() < 200) {
        seen += (seen.empty() ? "" : ", ") + oneLine(name);
      }
      archive_read_data_skip(archive_);
    }
    error_ = name_ + " is a zip without a bug report's text (bugreport-*.txt)" +
             (seen.empty() ? std::string() : "; it holds " + seen);
    return false;
  }

  long read(char* buffer, std::size_t size) override {
    const la_ssize_t got = archive_read_data(archive_, buffer, size);
    if (got < 0) {
      fail("cannot unpack");
      return -1;
    }
    return static_cast<long>(got);
  }

  const std::string& entry() const { return entry_; }
  bool gzip() const { return gzip_; }

 private:
  static la_ssize_t pull(archive* /*archive*/, void* self, const void** buffer) {
    auto* source = static_cast<ArchiveSource*>(self);
    source->block_.resize(ARCHIVE_BLOCK);
    const long got = source->packed_->read(source->block_.data(), source->block_.size());
    *buffer = source->block_.data();
    return static_cast<la_ssize_t>(got);
  }

  // The name that main_entry.txt holds.
  std::string mainEntry() {
    std::string text(MAX_MAIN_ENTRY_BYTES, '\0');
    const la_ssize_t got = archive_read_data(archive_, text.data(), text.size());
    text.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r' || text.back() == ' ')) {
      text.pop_back();
    }
    archive_read_data_skip(archive_);
    return text;
  }

  bool fail(const char* what) {
    const char* reason = archive_error_string(archive_);
    std::string why = !packed_->error().empty() ? packed_->error()
                      : reason != nullptr       ? std::string(reason)
                                                : std::string("damaged archive");
    error_ = std::string(what) + " " + name_ + ": " + oneLine(why);
    return false;
  }

  std::unique_ptr<CaptureSource> packed_;
  std::string name_;
  archive* archive_;
  std::vector<char> block_;
  std::string entry_;
  bool gzip_ = false;
};

// UTF-16 code units turned into UTF-8; a surrogate without its partner
// becomes U+FFFD, and a NUL stays a NUL byte (counted later).
class Utf16Source : public CaptureSource {
 public:
  Utf16Source(std::unique_ptr<CaptureSource> inner, bool bigEndian)
      : inner_(std::move(inner)), bigEndian_(bigEndian) {}

  long read(char* buffer, std::size_t size) override {
    std::size_t written = 0;
    while (written < size) {
      if (spilled_ < spill_.size()) {
        const std::size_t count = std::min(size - written, spill_.size() - spilled_);
        std::memcpy(buffer + written, spill_.data() + spilled_, count);
        spilled_ += count;
        written += count;
        continue;
      }
      if (at_ + 1 >= units_.size()) {
        if (!fill()) {
          break;
        }
        continue;
      }
      const auto byte = [this](std::size_t i) {
        return static_cast<uint32_t>(static_cast<unsigned char>(units_[i]));
      };
      const uint32_t unit =
          bigEndian_ ? (byte(at_) << 8) | byte(at_ + 1) : byte(at_) | (byte(at_ + 1) << 8);
      at_ += 2;
      char bytes[8];
      const std::size_t count = decode(unit, bytes);
      const std::size_t fits = std::min(count, size - written);
      std::memcpy(buffer + written, bytes, fits);
      written += fits;
      spill_.assign(bytes + fits, count - fits);
      spilled_ = 0;
    }
    return written == 0 && !error_.empty() ? -1 : static_cast<long>(written);
  }

 private:
  // More code units; false at the end or on an error.
  bool fill() {
    units_.erase(0, at_);
    at_ = 0;
    if (ended_) {
      return false;
    }
    const std::size_t kept = units_.size();
    units_.resize(kept + ARCHIVE_BLOCK);
    const long got = inner_->read(units_.data() + kept, ARCHIVE_BLOCK);
    units_.resize(kept + static_cast<std::size_t>(std::max(got, 0L)));
    if (got < 0) {
      error_ = inner_->error();
      return false;
    }
    ended_ = got == 0;
    return !ended_;
  }

  static bool isHigh(uint32_t unit) { return unit >= 0xD800 && unit <= 0xDBFF; }
  static bool isLow(uint32_t unit) { return unit >= 0xDC00 && unit <= 0xDFFF; }

  // The UTF-8 of `unit` into `out` (8 bytes); the number of bytes.
  std::size_t decode(uint32_t unit, char* out) {
    constexpr uint32_t REPLACEMENT = 0xFFFD;
    std::size_t count = 0;
    if (high_ != 0) {
      if (isLow(unit)) {
        const uint32_t codePoint = 0x10000 + ((high_ - 0xD800) << 10) + (unit - 0xDC00);
        high_ = 0;
        return encode(codePoint, out);
      }
      count = encode(REPLACEMENT, out);
      high_ = 0;
    }
    if (isHigh(unit)) {
      high_ = unit;
      return count;
    }
    return count + encode(isLow(unit) ? REPLACEMENT : unit, out + count);
  }

  static std::size_t encode(uint32_t codePoint, char* out) {
    if (codePoint < 0x80) {
      out[0] = static_cast<char>(codePoint);
      return 1;
    }
    if (codePoint < 0x800) {
      out[0] = static_cast<char>(0xC0 | (codePoint >> 6));
      out[1] = static_cast<char>(0x80 | (codePoint & 0x3F));
      return 2;
    }
    if (codePoint < 0x10000) {
      out[0] = static_cast<char>(0xE0 | (codePoint >> 12));
      out[1] = static_cast<char>(0x80 | ((codePoint >> 6) & 0x3F));
      out[2] = static_cast<char>(0x80 | (codePoint & 0x3F));
      return 3;
    }
    out[0] = static_cast<char>(0xF0 | (codePoint >> 18));
    out[1] = static_cast<char>(0x80 | ((codePoint >> 12) & 0x3F));
    out[2] = static_cast<char>(0x80 | ((codePoint >> 6) & 0x3F));
    out[3] = static_cast<char>(0x80 | (codePoint & 0x3F));
    return 4;
  }

  std::unique_ptr<CaptureSource> inner_;
  bool bigEndian_;
  std::string units_;
  std::size_t at_ = 0;
  bool ended_ = false;
  uint32_t high_ = 0;  // a high surrogate waiting for its low one
  std::string spill_;  // bytes of a character that did not fit
  std::size_t spilled_ = 0;
};

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
    opened.source = std::make_unique<Utf16Source>(
        std::make_unique<PrefixedSource>(std::move(packed), start.substr(mark ? 2 : 0)),
        encoding == Encoding::UTF16BE);
    return opened;
  }
  opened.source = std::make_unique<PrefixedSource>(std::move(packed), std::move(start));
  return opened;
}

// Unpacks the archive that `file` holds, whose first bytes are `start`.
OpenedCapture unpacked(int fd, const std::string& name, const std::string& start) {
  OpenedCapture opened;
  for (bool anyText : {false, true}) {
    auto file = std::make_unique<FileSource>(fd, name);
    if (anyText && !file->rewind()) {
      return opened;  // the error of the first try stands
    }
    auto archive = std::make_unique<ArchiveSource>(
        std::make_unique<PrefixedSource>(std::move(file), anyText ? std::string() : start), name);
    if (!archive->open(anyText)) {
      if (opened.error.empty()) {
        opened.error = archive->error();
      }
      continue;
    }
    opened.error.clear();
    opened.archive = archive->gzip() ? "gzip" : "zip";
    opened.entry = archive->entry();
    std::string text;
    if (!peek(*archive, text, opened.error)) {
      return opened;
    }
    return decoded(std::move(archive), std::move(text), std::move(opened));
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
