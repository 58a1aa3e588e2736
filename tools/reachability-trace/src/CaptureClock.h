// Turns the clock readings of a capture into one time line, even where the
// headers have no year and the capture runs over midnight or the new year.
#pragma once

#include <cstdint>
#include <limits>
#include <optional>
#include <string>

#include "CaptureLine.h"

namespace veranda::reachabilityCache::trace {

// Microseconds on the capture's time line; NO_TIME where the format has no
// clock.
using Micros = int64_t;
inline constexpr Micros NO_TIME = std::numeric_limits<Micros>::min();

class CaptureClock {
 public:
  // The reading on the time line. Readings without a year take the year of
  // the reading before; one that falls more than half a year before it is
  // taken as the next year's.
  Micros toMicros(const std::optional<ClockReading>& reading);

  // "MM-DD HH:MM:SS.mmm", with the year in front when the capture gave one.
  std::string format(Micros at) const;

  // The reading of `at` on the time line, its year included; and back.
  static ClockReading reading(Micros at);
  static Micros onLine(const ClockReading& reading);

  bool sawYear() const { return sawYear_; }
  // The finest step of the readings seen: a second for the host format,
  // else a millisecond or a microsecond.
  Micros resolution() const { return resolution_; }

 private:
  int year_ = 2000;  // a leap year, so that a yearless 02-29 is a date
  bool sawYear_ = false;
  Micros last_ = NO_TIME;
  Micros resolution_ = 1000000;
};

}  // namespace veranda::reachabilityCache::trace
