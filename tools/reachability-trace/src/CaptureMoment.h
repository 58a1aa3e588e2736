// A moment of a capture as a person writes it, in the capture's own
// notation: "[YYYY-]MM-DD HH:MM[:SS[.f]]", the time of day alone
// ("[H]H:MM[:SS[.f]]", the latest such moment), "+SECONDS[.f]" since boot,
// or "SECONDS[.f]" since 1970; the fraction to the nanosecond.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "CaptureClock.h"
#include "TraceModel.h"

namespace veranda::reachabilityCache::trace {

struct CaptureMoment {
  // CIVIL: a date and time, or a time of day alone; MONOTONIC, EPOCH: seconds.
  ClockReading::Kind kind = ClockReading::Kind::CIVIL;
  int year = 0;  // 0 when not given
  int month = 0;
  int day = 0;        // month and day are 0 for a time of day alone
  Micros micros = 0;  // of the day; since boot or 1970 for the others

  bool hasDate() const { return month != 0; }
};

// Reads `text`; nothing when it is no moment.
std::optional<CaptureMoment> parseCaptureMoment(std::string_view text);

struct ResolvedMoment {
  Micros at = NO_TIME;
  std::string error;  // one line when at == NO_TIME
};

// `moment` on the time line of `trace`, as the device wrote its time. Where
// the device's clock went back (a clock set back, a bug report's boot
// before), a time may lie on the time line more than once: the place where
// a cache was running is taken, the latest such. A time of day alone is the
// latest such moment of the capture by the device's clock (on the day of its
// end when no day of the capture holds it), or with `after`, the first on
// the time line after `after`. A date without a year takes the year the
// capture's times have. Refuses a notation that the capture's clock does not
// use, and a year where its times have none.
ResolvedMoment resolveCaptureMoment(const CaptureMoment& moment, const Trace& trace,
                                    Micros after = NO_TIME);

// The time of the first and of the last line of the trace's caches; NO_TIME
// when it has none.
Micros traceStart(const Trace& trace);
Micros traceEnd(const Trace& trace);

}  // namespace veranda::reachabilityCache::trace
