#include "CaptureMoment.h"

#include <algorithm>
#include <cctype>

namespace veranda::reachabilityCache::trace {
namespace {

constexpr Micros MICROS_PER_DAY = Micros{86400} * 1000000;
constexpr Micros HALF_YEAR = 182 * MICROS_PER_DAY;

// Reads exactly `digits` digits at `at`, within [low, high].
std::optional<int> field(std::string_view text, std::size_t& at, std::size_t digits, int low,
                         int high) {
  if (at + digits > text.size()) {
    return std::nullopt;
  }
  int value = 0;
  for (std::size_t i = 0; i < digits; ++i) {
    const char c = text[at + i];
    if (std::isdigit(static_cast<unsigned char>(c)) == 0) {
      return std::nullopt;
    }
    value = value * 10 + (c - '0');
  }
  at += digits;
  return value < low || value > high ? std::nullopt : std::optional<int>(value);
}

bool separator(std::string_view text, std::size_t& at, char c) {
  if (at < text.size() && text[at] == c) {
    ++at;
    return true;
  }
  return false;
}

// "[H]H:MM[:SS[.f...]]" from `at` to the end of `text`.
std::optional<Micros> timeOfDay(std::string_view text, std::size_t at) {
  const auto hours = field(text, at, text.find(':', at) == at + 1 ? 1 : 2, 0, 23);
  if (!hours || !separator(text, at, ':')) {
    return std::nullopt;
  }
  const auto minutes = field(text, at, 2, 0, 59);
  if (!minutes) {
    return std::nullopt;
  }
  Micros micros = (Micros{*hours} * 60 + *minutes) * 60 * 1000000;
  if (separator(text, at, ':')) {
    const auto seconds = field(text, at, 2, 0, 59);
    if (!seconds) {
      return std::nullopt;
    }
    micros += Micros{*seconds} * 1000000;
    if (separator(text, at, '.')) {
      const std::size_t digits = text.size() - at;
      if (digits == 0 || digits > 6) {
        return std::nullopt;
      }
      const auto fraction = field(text, at, digits, 0, 999999);
      if (!fraction) {
        return std::nullopt;
      }
      Micros scaled = *fraction;
      for (std::size_t i = digits; i < 6; ++i) {
        scaled *= 10;
      }
      micros += scaled;
    }
  }
  return at == text.size() ? std::optional<Micros>(micros) : std::nullopt;
}

}  // namespace

std::optional<CaptureMoment> parseCaptureMoment(std::string_view text) {
  CaptureMoment moment;
  std::size_t at = 0;
  const std::size_t blank = text.find(' ');
  if (blank != std::string_view::npos) {
    if (blank == 10) {  // "YYYY-MM-DD"
      const auto year = field(text, at, 4, 1970, 9999);
      if (!year || !separator(text, at, '-')) {
        return std::nullopt;
      }
      moment.year = *year;
    }
    const auto month = field(text, at, 2, 1, 12);
    if (!month || !separator(text, at, '-')) {
      return std::nullopt;
    }
    const auto day = field(text, at, 2, 1, 31);
    if (!day || at != blank) {
      return std::nullopt;
    }
    moment.month = *month;
    moment.day = *day;
    at = text.find_first_not_of(' ', blank);
    if (at == std::string_view::npos) {
      return std::nullopt;
    }
  }
  const std::optional<Micros> time = timeOfDay(text, at);
  if (!time) {
    return std::nullopt;
  }
  moment.microsOfDay = *time;
  return moment;
}

Micros traceStart(const Trace& trace) {
  Micros start = NO_TIME;
  for (const CacheRecord& cache : trace.caches) {
    if (cache.startTime() != NO_TIME && (start == NO_TIME || cache.startTime() < start)) {
      start = cache.startTime();
    }
  }
  return start;
}

Micros traceEnd(const Trace& trace) {
  Micros end = NO_TIME;
  for (const CacheRecord& cache : trace.caches) {
    end = std::max(end, cache.endTime());
  }
  return end;
}

ResolvedMoment resolveCaptureMoment(const CaptureMoment& moment, const Trace& trace, Micros after) {
  ResolvedMoment result;
  const Micros end = traceEnd(trace);
  if (!trace.hasTime || end == NO_TIME) {
    result.error = "the capture has no timestamps (brief format)";
    return result;
  }
  if (moment.year != 0 && !trace.clock.sawYear()) {
    result.error = "the capture's times have no year: leave it out";
    return result;
  }
  if (moment.hasDate()) {
    ClockReading reading{moment.year, moment.month, moment.day, moment.microsOfDay};
    if (reading.year == 0) {
      reading.year = CaptureClock::reading(end).year;
      if (CaptureClock::onLine(reading) > end + HALF_YEAR) {
        --reading.year;
      }
    }
    result.at = CaptureClock::onLine(reading);
    if (CaptureClock::reading(result.at).day != moment.day) {
      result.at = NO_TIME;
      result.error = "there is no such day";
    }
    return result;
  }
  // A time of day alone: on the day of `after` or of `end`, or a day later
  // or earlier. A moment that no day of the capture holds stays on the day
  // of its end.
  const Micros base = after != NO_TIME ? after : end;
  ClockReading reading = CaptureClock::reading(base);
  reading.microsOfDay = moment.microsOfDay;
  result.at = CaptureClock::onLine(reading);
  if (after != NO_TIME && result.at < after) {
    result.at += MICROS_PER_DAY;
  } else if (after == NO_TIME && result.at > end &&
             result.at - MICROS_PER_DAY >= traceStart(trace)) {
    result.at -= MICROS_PER_DAY;
  }
  return result;
}

}  // namespace veranda::reachabilityCache::trace
