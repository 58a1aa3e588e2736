// Where a capture's text comes from: a file or standard input as it is, a
// bug report zip or a gzipped capture unpacked on the way, UTF-16 (as a
// Windows shell redirect saves it) turned into UTF-8, a byte-order mark left
// out.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

namespace veranda::reachabilityCache::trace {

// A stream of text bytes. Not thread-safe.
class CaptureSource {
 public:
  virtual ~CaptureSource() = default;
  // Up to `size` bytes into `buffer`: the number read, 0 at the end, -1 on
  // an error (error() says which).
  virtual long read(char* buffer, std::size_t size) = 0;
  const std::string& error() const { return error_; }

 protected:
  std::string error_;
};

struct OpenedCapture {
  std::unique_ptr<CaptureSource> source;  // null when the capture cannot be read
  std::string error;                      // one line when there is no source
  std::string archive;                    // "zip" or "gzip"; empty for a text file
  std::string entry;                      // the archive's entry that is read
  std::string encoding = "UTF-8";         // or "UTF-16LE", "UTF-16BE"
};

// Opens what `fd` holds (it stays open and owned by the caller); `name`
// names it in errors. A zip's entry is the bug report's text: the one
// main_entry.txt names or the first "bugreport*.txt" at its top; failing
// those, when the file can be read twice, the first other ".txt" at its top.
OpenedCapture openCapture(int fd, const std::string& name);

}  // namespace veranda::reachabilityCache::trace
