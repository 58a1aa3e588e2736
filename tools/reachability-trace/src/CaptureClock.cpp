#include "CaptureClock.h"

#include <algorithm>
#include <cstdio>
#include <iterator>

#include "Saturating.h"

namespace veranda::reachabilityCache::trace {
namespace {

constexpr Micros MICROS_PER_DAY = Micros{86400} * 1000000;
constexpr Micros HALF_YEAR = 182 * MICROS_PER_DAY;

// Days since 1970-01-01 of a civil date (proleptic Gregorian).
int64_t daysFromCivil(int64_t year, int64_t month, int64_t day) {
  year -= month <= 2 ? 1 : 0;
  const int64_t era = (year >= 0 ? year : year - 399) / 400;
  const int64_t yearOfEra = year - era * 400;
  const int64_t dayOfYear = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
  const int64_t dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
  return era * 146097 + dayOfEra - 719468;
}

struct Civil {
  int64_t year;
  int64_t month;
  int64_t day;
};

Civil civilFromDays(int64_t days) {
  days += 719468;
  const int64_t era = (days >= 0 ? days : days - 146096) / 146097;
  const int64_t dayOfEra = days - era * 146097;
  const int64_t yearOfEra =
      (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
  const int64_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
  const int64_t shifted = (5 * dayOfYear + 2) / 153;
  const int64_t day = dayOfYear - (153 * shifted + 2) / 5 + 1;
  const int64_t month = shifted + (shifted < 10 ? 3 : -9);
  return {yearOfEra + era * 400 + (month <= 2 ? 1 : 0), month, day};
}

Micros onLine(int year, const ClockReading& reading) {
  return daysFromCivil(year, reading.month, reading.day) * MICROS_PER_DAY + reading.micros;
}

int64_t daysOf(Micros at) {
  return at >= 0 ? at / MICROS_PER_DAY : (at - MICROS_PER_DAY + 1) / MICROS_PER_DAY;
}

}  // namespace

Micros CaptureClock::civilTime(const ClockReading& reading) {
  return onLine(reading.year, reading);
}

ClockReading CaptureClock::civilReading(Micros device) {
  const int64_t days = daysOf(device);
  const Civil date = civilFromDays(days);
  ClockReading reading;
  reading.year = static_cast<int>(date.year);
  reading.month = static_cast<int>(date.month);
  reading.day = static_cast<int>(date.day);
  reading.micros = device - days * MICROS_PER_DAY;
  return reading;
}

Micros CaptureClock::deviceTime(Micros at) const {
  // The steps taken before `at` moved it: take them out again.
  const auto after =
      std::upper_bound(steps_.begin(), steps_.end(), at,
                       [](Micros time, const ClockStep& step) { return time < step.at; });
  return after == steps_.begin() ? at : saturatingSub(at, std::prev(after)->offset);
}

std::vector<Micros> CaptureClock::timeLineOf(Micros device) const {
  std::vector<Micros> places;
  for (std::size_t stretch = 0; stretch <= steps_.size(); ++stretch) {
    const Micros offset = stretch == 0 ? 0 : steps_[stretch - 1].offset;
    const Micros at = saturatingAdd(device, offset);
    const bool afterStart = stretch == 0 || at >= steps_[stretch - 1].at;
    const bool beforeEnd = stretch == steps_.size() || at < steps_[stretch].at;
    if (afterStart && beforeEnd) {
      places.push_back(at);
    }
  }
  return places;
}

Micros CaptureClock::deviceMicros(const ClockReading& reading) {
  if (reading.micros % 1000000 != 0) {
    resolution_ = std::min<Micros>(resolution_, reading.micros % 1000 != 0 ? 1 : 1000);
  }
  kind_ = reading.kind;
  if (reading.kind != ClockReading::Kind::CIVIL) {
    sawYear_ = sawYear_ || reading.kind == ClockReading::Kind::EPOCH;
    return reading.micros;
  }
  if (reading.year != 0) {
    sawYear_ = true;
    year_ = reading.year;
    return onLine(year_, reading);
  }
  Micros at = onLine(year_, reading);
  if (last_ != NO_TIME && at < saturatingSub(last_, HALF_YEAR)) {
    ++year_;
    at = onLine(year_, reading);
  }
  return at;
}

Micros CaptureClock::toMicros(const std::optional<ClockReading>& reading) {
  if (!reading) {
    return NO_TIME;
  }
  const Micros device = deviceMicros(*reading);
  if (last_ != NO_TIME && device < saturatingSub(last_, STEP_TOLERANCE)) {
    const Micros back = saturatingSub(last_, device);
    offset_ = saturatingAdd(offset_, back);
    steps_.push_back({saturatingAdd(device, offset_), back, offset_});
  }
  last_ = device;
  return saturatingAdd(device, offset_);
}

std::string CaptureClock::format(Micros at) const {
  if (at == NO_TIME) {
    return "";
  }
  at = deviceTime(at);
  char text[64];
  if (kind_ == ClockReading::Kind::MONOTONIC) {
    std::snprintf(text, sizeof(text), "+%lld.%03lld", static_cast<long long>(at / 1000000),
                  static_cast<long long>(at % 1000000 / 1000));
    return text;
  }
  const int64_t days = daysOf(at);
  const Micros ofDay = at - days * MICROS_PER_DAY;
  const Civil date = civilFromDays(days);
  const auto seconds = static_cast<long long>(ofDay / 1000000);
  const int dateLength =
      sawYear_ ? std::snprintf(text, sizeof(text), "%04lld-", static_cast<long long>(date.year))
               : 0;
  std::snprintf(text + dateLength, sizeof(text) - static_cast<std::size_t>(dateLength),
                "%02lld-%02lld %02lld:%02lld:%02lld.%03lld", static_cast<long long>(date.month),
                static_cast<long long>(date.day), seconds / 3600, seconds / 60 % 60, seconds % 60,
                static_cast<long long>(ofDay % 1000000 / 1000));
  return text;
}

std::string CaptureClock::formatDuration(Micros duration) {
  char text[64];
  const auto millis = static_cast<long long>(duration / 1000);
  if (millis < 60000) {
    std::snprintf(text, sizeof(text), "%lld.%03lld s", millis / 1000, millis % 1000);
  } else {
    std::snprintf(text, sizeof(text), "%lld:%02lld:%02lld.%03lld", millis / 3600000,
                  millis / 60000 % 60, millis / 1000 % 60, millis % 1000);
  }
  return text;
}

}  // namespace veranda::reachabilityCache::trace
