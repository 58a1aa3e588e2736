// A moment of a capture as a person writes it, in the capture's own
// notation: "[YYYY-]MM-DD HH:MM[:SS[.fff[fff]]]", or the time of day alone
// ("[H]H:MM[:SS[.fff[fff]]]"), which means the latest such moment.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "CaptureClock.h"
#include "TraceModel.h"

namespace veranda::reachabilityCache::trace {

struct CaptureMoment {
  int year = 0;  // 0 when not given
  int month = 0;
  int day = 0;  // month and day are 0 for a time of day alone
  Micros microsOfDay = 0;

  bool hasDate() const { return month != 0; }
};

// Reads `text`; nothing when it is no moment.
std::optional<CaptureMoment> parseCaptureMoment(std::string_view text);

struct ResolvedMoment {
  Micros at = NO_TIME;
  std::string error;  // one line when at == NO_TIME
};

// `moment` on the time line of `trace`. A time of day alone is the latest
// such moment up to the trace's end (on the day of its end when no day of
// the trace holds it), or with `after`, the first at or after `after`. A
// date without a year takes the year that puts it closest to the end. A
// year is refused where the capture's times have none.
ResolvedMoment resolveCaptureMoment(const CaptureMoment& moment, const Trace& trace,
                                    Micros after = NO_TIME);

// The time of the first and of the last line of the trace's caches; NO_TIME
// when it has none.
Micros traceStart(const Trace& trace);
Micros traceEnd(const Trace& trace);

}  // namespace veranda::reachabilityCache::trace
