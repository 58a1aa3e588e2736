#include "CaptureClock.h"

#include <algorithm>
#include <cstdio>

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

Micros onTimeLine(int year, const ClockReading& reading) {
  return daysFromCivil(year, reading.month, reading.day) * MICROS_PER_DAY + reading.microsOfDay;
}

int64_t daysOf(Micros at) {
  return at >= 0 ? at / MICROS_PER_DAY : (at - MICROS_PER_DAY + 1) / MICROS_PER_DAY;
}

}  // namespace

ClockReading CaptureClock::reading(Micros at) {
  const int64_t days = daysOf(at);
  const Civil date = civilFromDays(days);
  return {static_cast<int>(date.year), static_cast<int>(date.month), static_cast<int>(date.day),
          at - days * MICROS_PER_DAY};
}

Micros CaptureClock::onLine(const ClockReading& reading) {
  return onTimeLine(reading.year, reading);
}

Micros CaptureClock::toMicros(const std::optional<ClockReading>& reading) {
  if (!reading) {
    return NO_TIME;
  }
  if (reading->microsOfDay % 1000000 != 0) {
    resolution_ = std::min<Micros>(resolution_, reading->microsOfDay % 1000 != 0 ? 1 : 1000);
  }
  Micros at = 0;
  if (reading->year != 0) {
    sawYear_ = true;
    year_ = reading->year;
    at = onTimeLine(year_, *reading);
  } else {
    at = onTimeLine(year_, *reading);
    if (last_ != NO_TIME && at < last_ - HALF_YEAR) {
      ++year_;
      at = onTimeLine(year_, *reading);
    }
  }
  last_ = at;
  return at;
}

std::string CaptureClock::format(Micros at) const {
  if (at == NO_TIME) {
    return "";
  }
  const int64_t days = daysOf(at);
  const Micros ofDay = at - days * MICROS_PER_DAY;
  const Civil date = civilFromDays(days);
  const auto seconds = static_cast<long long>(ofDay / 1000000);
  char text[48];
  const int dateLength =
      sawYear_ ? std::snprintf(text, sizeof(text), "%04lld-", static_cast<long long>(date.year))
               : 0;
  std::snprintf(text + dateLength, sizeof(text) - static_cast<std::size_t>(dateLength),
                "%02lld-%02lld %02lld:%02lld:%02lld.%03lld", static_cast<long long>(date.month),
                static_cast<long long>(date.day), seconds / 3600, seconds / 60 % 60, seconds % 60,
                static_cast<long long>(ofDay % 1000000 / 1000));
  return text;
}

}  // namespace veranda::reachabilityCache::trace
