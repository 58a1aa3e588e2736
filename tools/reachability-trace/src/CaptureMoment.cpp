#include "CaptureMoment.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <tuple>
#include <utility>
#include <vector>

namespace veranda::reachabilityCache::trace {
namespace {

constexpr Micros MICROS_PER_DAY = Micros{86400} * 1000000;
// A time of day alone is looked for on this many days of a capture at most.
constexpr std::size_t MAX_DAYS = 3660;
// Seconds since 1970 have nine digits from 1973 on, ten until 2286: fewer
// are no epoch time (and "9.14" no moment).
constexpr std::size_t MIN_EPOCH_DIGITS = 9;
constexpr std::size_t MAX_SECONDS_DIGITS = 10;

// Reads exactly `digits` digits at `at`, within [low, high].
std::optional<int64_t> field(std::string_view text, std::size_t& at, std::size_t digits,
                             int64_t low, int64_t high) {
  if (at + digits > text.size()) {
    return std::nullopt;
  }
  int64_t value = 0;
  for (std::size_t i = 0; i < digits; ++i) {
    const char c = text[at + i];
    if (std::isdigit(static_cast<unsigned char>(c)) == 0) {
      return std::nullopt;
    }
    value = value * 10 + (c - '0');
  }
  at += digits;
  return value < low || value > high ? std::nullopt : std::optional<int64_t>(value);
}

bool separator(std::string_view text, std::size_t& at, char c) {
  if (at < text.size() && text[at] == c) {
    ++at;
    return true;
  }
  return false;
}

// ".f" to the nanosecond at `at`, read to the microsecond; nothing is 0.
std::optional<Micros> fraction(std::string_view text, std::size_t& at) {
  if (!separator(text, at, '.')) {
    return 0;
  }
  const std::size_t digits = text.size() - at;
  if (digits == 0 || digits > 9) {
    return std::nullopt;
  }
  const auto value = field(text, at, digits, 0, 999999999);
  if (!value) {
    return std::nullopt;
  }
  Micros scaled = *value;
  for (std::size_t i = digits; i < 6; ++i) {
    scaled *= 10;
  }
  for (std::size_t i = 6; i < digits; ++i) {
    scaled /= 10;
  }
  return scaled;
}

// "[H]H:MM[:SS[.f]]" from `at` to the end of `text`.
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
    const std::optional<Micros> part = seconds ? fraction(text, at) : std::nullopt;
    if (!part) {
      return std::nullopt;
    }
    micros += Micros{*seconds} * 1000000 + *part;
  }
  return at == text.size() ? std::optional<Micros>(micros) : std::nullopt;
}

// "[+]SECONDS[.f]": seconds since boot with the sign, since 1970 without.
std::optional<CaptureMoment> seconds(std::string_view text) {
  CaptureMoment moment;
  std::size_t at = 0;
  moment.kind =
      separator(text, at, '+') ? ClockReading::Kind::MONOTONIC : ClockReading::Kind::EPOCH;
  const std::size_t digits = std::min(text.find('.', at), text.size()) - at;
  const std::size_t least = moment.kind == ClockReading::Kind::EPOCH ? MIN_EPOCH_DIGITS : 1;
  if (digits < least || digits > MAX_SECONDS_DIGITS) {
    return std::nullopt;
  }
  const auto whole = field(text, at, digits, 0, INT64_MAX / 1000000 - 1);
  const std::optional<Micros> part = whole ? fraction(text, at) : std::nullopt;
  if (!part || at != text.size()) {
    return std::nullopt;
  }
  moment.micros = Micros{*whole} * 1000000 + *part;
  return moment;
}

// Where a cache of `trace` was running at `at`.
bool running(const Trace& trace, Micros at) {
  return std::any_of(trace.caches.begin(), trace.caches.end(), [at](const CacheRecord& cache) {
    return cache.startTime() <= at && at <= cache.endTime();
  });
}

// The places on the time line within [start, end] of the device's times
// `devices`, with the device time of each.
std::vector<std::pair<Micros, Micros>> placesOf(const std::vector<Micros>& devices,
                                                const Trace& trace) {
  const Micros start = traceStart(trace);
  const Micros end = traceEnd(trace);
  std::vector<std::pair<Micros, Micros>> places;  // (device, time line)
  for (const Micros device : devices) {
    for (const Micros at : trace.clock.timeLineOf(device)) {
      if (at >= start && at <= end) {
        places.emplace_back(device, at);
      }
    }
  }
  return places;
}

// The place to take among `places`: the first after `after` where given;
// else the latest device time, where a cache ran, latest on the time line.
std::optional<Micros> choose(const std::vector<std::pair<Micros, Micros>>& places,
                             const Trace& trace, Micros after) {
  std::optional<std::pair<Micros, Micros>> best;
  for (const auto& place : places) {
    if (after != NO_TIME) {
      if (place.second >= after && (!best || place.second < best->second)) {
        best = place;
      }
      continue;
    }
    const auto rank = [&trace](const std::pair<Micros, Micros>& candidate) {
      return std::make_tuple(candidate.first, running(trace, candidate.second), candidate.second);
    };
    if (!best || rank(place) > rank(*best)) {
      best = place;
    }
  }
  return best ? std::optional<Micros>(best->second) : std::nullopt;
}

// Of the device's times `devices`, the one nearest to [first, last].
Micros nearest(const std::vector<Micros>& devices, Micros first, Micros last) {
  const auto distance = [first, last](Micros device) {
    return device < first ? first - device : device > last ? device - last : 0;
  };
  return *std::min_element(devices.begin(), devices.end(),
                           [&distance](Micros a, Micros b) { return distance(a) < distance(b); });
}

// The device's times a civil moment may be: its date in each year the
// capture's times span, or its time of day on each day they span.
std::vector<Micros> civilCandidates(const CaptureMoment& moment, Micros first, Micros last) {
  std::vector<Micros> devices;
  if (moment.hasDate()) {
    const int lastYear = moment.year != 0 ? moment.year : CaptureClock::civilReading(last).year;
    for (int year = moment.year != 0 ? moment.year : CaptureClock::civilReading(first).year;
         year <= lastYear; ++year) {
      ClockReading reading;
      reading.year = year;
      reading.month = moment.month;
      reading.day = moment.day;
      reading.micros = moment.micros;
      const Micros device = CaptureClock::civilTime(reading);
      if (CaptureClock::civilReading(device).day == moment.day) {
        devices.push_back(device);
      }
    }
    return devices;
  }
  const Micros firstDay = first - CaptureClock::civilReading(first).micros;
  for (Micros day = firstDay; day <= last && devices.size() < MAX_DAYS; day += MICROS_PER_DAY) {
    devices.push_back(day + moment.micros);
  }
  return devices;
}

}  // namespace

std::optional<CaptureMoment> parseCaptureMoment(std::string_view text) {
  if (text.find(':') == std::string_view::npos) {
    return seconds(text);
  }
  CaptureMoment moment;
  std::size_t at = 0;
  const std::size_t blank = text.find(' ');
  if (blank != std::string_view::npos) {
    if (blank == 10) {  // "YYYY-MM-DD"
      const auto year = field(text, at, 4, 1970, 9999);
      if (!year || !separator(text, at, '-')) {
        return std::nullopt;
      }
      moment.year = static_cast<int>(*year);
    }
    const auto month = field(text, at, 2, 1, 12);
    if (!month || !separator(text, at, '-')) {
      return std::nullopt;
    }
    const auto day = field(text, at, 2, 1, 31);
    if (!day || at != blank) {
      return std::nullopt;
    }
    moment.month = static_cast<int>(*month);
    moment.day = static_cast<int>(*day);
    at = text.find_first_not_of(' ', blank);
    if (at == std::string_view::npos) {
      return std::nullopt;
    }
  }
  const std::optional<Micros> time = timeOfDay(text, at);
  if (!time) {
    return std::nullopt;
  }
  moment.micros = *time;
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
  const Micros start = traceStart(trace);
  const Micros end = traceEnd(trace);
  if (!trace.hasTime || end == NO_TIME) {
    result.error = "the capture has no timestamps (brief format)";
    return result;
  }
  const ClockReading::Kind clock = trace.clock.kind();
  if (moment.kind == ClockReading::Kind::MONOTONIC && clock != moment.kind) {
    result.error = "the capture's times are dates: write [YYYY-]MM-DD HH:MM[:SS] or HH:MM[:SS]";
    return result;
  }
  if (moment.kind == ClockReading::Kind::CIVIL && clock == ClockReading::Kind::MONOTONIC) {
    result.error = "the capture's times are seconds since boot: write +SECONDS[.f]";
    return result;
  }
  if (moment.kind == ClockReading::Kind::EPOCH && clock != moment.kind) {
    result.error = "the capture's times are not seconds since 1970";
    return result;
  }
  if (moment.year != 0 && !trace.clock.sawYear()) {
    result.error = "the capture's times have no year: leave it out";
    return result;
  }
  // The device's times the capture spans, each stretch between steps of its
  // clock together.
  Micros first = trace.clock.deviceTime(start);
  Micros last = trace.clock.deviceTime(end);
  for (const ClockStep& step : trace.clock.steps()) {
    if (step.at > start && step.at <= end) {
      first = std::min(first, trace.clock.deviceTime(step.at));
      last = std::max(last, trace.clock.deviceTime(step.at - 1));
    }
  }
  std::vector<Micros> devices;
  if (moment.kind != ClockReading::Kind::CIVIL) {
    devices.push_back(moment.micros);
  } else {
    devices = civilCandidates(moment, first, last);
    if (moment.hasDate() && devices.empty()) {
      result.error = "there is no such day";
      return result;
    }
  }
  if (const std::optional<Micros> at = choose(placesOf(devices, trace), trace, after)) {
    result.at = *at;
    return result;
  }
  // No time of the capture: an exact time where the device's clock would
  // have put it, a time of day alone on the day of the capture's end (or the
  // day after `after`).
  if (devices.empty() || (!moment.hasDate() && moment.kind == ClockReading::Kind::CIVIL)) {
    const Micros base = after != NO_TIME ? trace.clock.deviceTime(after) : last;
    Micros device = base - CaptureClock::civilReading(base).micros + moment.micros;
    device += after != NO_TIME && device < base ? MICROS_PER_DAY : 0;
    devices.assign(1, device);
  }
  const Micros device = moment.hasDate() && devices.size() > 1 && after == NO_TIME
                            ? nearest(devices, first, last)
                            : devices.back();
  const std::vector<Micros> places = trace.clock.timeLineOf(device);
  result.at = places.empty() ? device : places.back();
  return result;
}

}  // namespace veranda::reachabilityCache::trace
