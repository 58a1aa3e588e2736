// One physical line of a capture, split into its header and its text. Knows
// the header forms of logcat (threadtime, time, brief, with the uid, year and
// usec adverbs) and of the host's liblog on standard error.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace veranda::reachabilityCache::trace {

enum class LineFormat { THREADTIME, TIME, BRIEF, HOST };

// A wall-clock reading as the header gives it. The year is 0 when the
// header has none.
struct ClockReading {
  int year = 0;
  int month = 0;
  int day = 0;
  int64_t microsOfDay = 0;
};

struct CaptureLine {
  LineFormat format = LineFormat::THREADTIME;
  std::optional<ClockReading> clock;  // none in the brief format
  std::optional<int> pid;             // none where the format has none
  std::optional<int> tid;
  char priority = '?';    // V, D, I, W, E, F or A
  std::string_view tag;   // without the padding blanks
  std::string_view text;  // the message (or this line of it)
};

// Parses `text`, one line without its line feed. Returns nothing when no
// header form fits. The views point into `text`.
std::optional<CaptureLine> parseCaptureLine(std::string_view text);

}  // namespace veranda::reachabilityCache::trace
