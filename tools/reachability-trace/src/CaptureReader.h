// Streams a capture and hands on the lines that may be the library's, at
// little more than the cost of reading the others.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace veranda::reachabilityCache::trace {

// Receives lines (without their line feed) in capture order, each with its
// number in the capture (the first line is 1) where it asks for numbers, 0
// elsewhere.
class LineSink {
 public:
  virtual ~LineSink() = default;
  virtual void line(std::string_view text, uint64_t number) = 0;
  // True when the lines need their numbers: counting the lines of the whole
  // capture has a cost.
  virtual bool wantsLineNumbers() const = 0;
  // True when the next line must be handed on whatever it holds (the bare
  // continuation lines of the host format).
  virtual bool wantsNextLine() const = 0;
  // The capture has ended.
  virtual void finish() = 0;
};

struct ReadResult {
  bool ok = false;
  std::string error;      // one line when !ok
  uint64_t bytes = 0;     // read from the input
  bool sections = false;  // a bug report: only its log sections were read
};

// Reads `fd` to its end in large blocks and hands `sink` every line that
// contains the word "ReachabilityCache" (every library and metric line
// does), plus the lines it asks for. In a bug report only the log sections
// count. Memory stays at one block whatever the size of the capture.
// Refuses binary data (a NUL byte) with an error; `name` names the input in it.
ReadResult readCapture(int fd, const std::string& name, LineSink& sink);

}  // namespace veranda::reachabilityCache::trace
