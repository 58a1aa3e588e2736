// Streams a capture's text and hands on the lines that may be the library's
// (or the rate limiter's), at little more than the cost of reading the
// others.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "CaptureSource.h"

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
  // following lines of a message).
  virtual bool wantsNextLine() const = 0;
  // True when a line must come with the line before it (the header of
  // logcat's long layout, which may not name the cache when its text does).
  virtual bool wantsLineBefore() const = 0;
  // A section of a bug report begins: its title ("SYSTEM LOG").
  virtual void section(std::string_view title) = 0;
  // A line too long to be any message's was skipped here.
  virtual void skippedLine() = 0;
  // The capture has ended.
  virtual void finish() = 0;
};

// A line longer than this is no line of a log: it is skipped whole.
inline constexpr std::size_t MAX_LINE_BYTES = std::size_t{64} << 10;

struct ReadResult {
  bool ok = false;
  std::string error;           // one line when !ok
  uint64_t bytes = 0;          // of text read
  bool sections = false;       // a bug report: only its log sections were read
  uint64_t nulBytes = 0;       // skipped wherever they were
  uint64_t overLongLines = 0;  // naming the cache, skipped whole
};

// Reads `source` to its end in large blocks and hands `sink` every line that
// contains the word "ReachabilityCache" (every library and metric line
// does) or "chatty" (the rate limiter's notices), plus the lines it asks
// for. In a bug report only the log sections count. NUL bytes are left out
// and counted; lines longer than MAX_LINE_BYTES are skipped whole. Memory
// stays at one block whatever the size of the capture. `name` names the
// capture in errors.
ReadResult readCapture(CaptureSource& source, const std::string& name, LineSink& sink);

}  // namespace veranda::reachabilityCache::trace
