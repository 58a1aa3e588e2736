#include "ArchiveSource.h"

#include <archive.h>
#include <archive_entry.h>

#include <algorithm>
#include <string_view>
#include <utility>
#include <vector>

namespace veranda::reachabilityCache::trace {
namespace {

constexpr std::size_t ARCHIVE_BLOCK = std::size_t{1} << 16;
constexpr std::size_t MAX_MAIN_ENTRY_BYTES = 4096;

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

}  // namespace

UnpackedArchive unpackArchive(std::unique_ptr<CaptureSource> packed, const std::string& name,
                              bool anyText) {
  UnpackedArchive result;
  auto archive = std::make_unique<ArchiveSource>(std::move(packed), name);
  if (!archive->open(anyText)) {
    result.error = archive->error();
    return result;
  }
  result.gzip = archive->gzip();
  result.entry = archive->entry();
  result.source = std::move(archive);
  return result;
}

}  // namespace veranda::reachabilityCache::trace
