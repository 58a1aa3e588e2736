// Turns the clock readings of a capture into one time line, even where the
// headers have no year, the capture runs over midnight or the new year, or
// the device's clock was set back.
#pragma once

#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "CaptureLine.h"

namespace veranda::reachabilityCache::trace {

// Microseconds on the capture's time line; NO_TIME where the format has no
// clock.
using Micros = int64_t;
inline constexpr Micros NO_TIME = std::numeric_limits<Micros>::min();

// Where the device's clock went back: the time line keeps the order of the
// lines and goes on from where it was, so that durations count the time
// between lines, and times are shown as the device wrote them.
struct ClockStep {
  Micros at = NO_TIME;  // on the time line, where the first line after the step is
  Micros back = 0;      // by how much the clock went back
  Micros offset = 0;    // added to the device's times from here on: all steps so far
};

// Not thread-safe.
class CaptureClock {
 public:
  // A step back shorter than this is lines of threads written out of order.
  static constexpr Micros STEP_TOLERANCE = 2000000;

  // The reading on the time line. Readings without a year take the year of
  // the reading before; one that falls more than half a year before it is
  // taken as the next year's.
  Micros toMicros(const std::optional<ClockReading>& reading);

  // The time as the device wrote it: "MM-DD HH:MM:SS.mmm", with the year in
  // front when the capture gave one; "+SSSS.mmm" for seconds since boot.
  std::string format(Micros at) const;
  // A duration: "1:00:00.000", "12.345 s".
  static std::string formatDuration(Micros duration);

  // The kind of the capture's readings (of the last one read).
  ClockReading::Kind kind() const { return kind_; }
  // The device's time at `at` on the time line: the steps before it taken
  // out again. format() writes it.
  Micros deviceTime(Micros at) const;
  // Where the device's time `device` lies on the time line: once in each
  // stretch between steps of the clock whose device times hold it, in
  // time line order. Stretches are open towards the capture's start and end.
  std::vector<Micros> timeLineOf(Micros device) const;

  // A civil date and time of day as a device time (CIVIL readings, the year
  // given), and back.
  static Micros civilTime(const ClockReading& reading);
  static ClockReading civilReading(Micros device);

  bool sawYear() const { return sawYear_; }
  // The finest step of the readings seen: a second for the host format,
  // else a millisecond or a microsecond.
  Micros resolution() const { return resolution_; }
  // Each time the clock went back, in capture order.
  const std::vector<ClockStep>& steps() const { return steps_; }

 private:
  // The reading on the device's own line (before any step is taken out).
  Micros deviceMicros(const ClockReading& reading);

  int year_ = 2000;  // a leap year, so that a yearless 02-29 is a date
  bool sawYear_ = false;
  ClockReading::Kind kind_ = ClockReading::Kind::CIVIL;
  Micros last_ = NO_TIME;  // the last reading, on the device's line
  Micros offset_ = 0;      // added to readings since the last step
  Micros resolution_ = 1000000;
  std::vector<ClockStep> steps_;
};

}  // namespace veranda::reachabilityCache::trace
