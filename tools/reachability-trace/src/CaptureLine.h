// One physical line of a capture, split into its header and its text. Knows
// the header layouts of logcat (threadtime, time, brief and long, with the
// uid, year, usec, nsec, zone, epoch, monotonic, color and printable
// adverbs), the two layouts an IDE's log window copies, and the host's
// liblog on standard error.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace veranda::reachabilityCache::trace {

enum class LineFormat {
  THREADTIME,  // "MM-DD HH:MM:SS.mmm  pid  tid P tag: text"
  TIME,        // "MM-DD HH:MM:SS.mmm P/tag( pid): text"
  BRIEF,       // "P/tag( pid): text"
  LONG,        // "[ MM-DD HH:MM:SS.mmm  pid: tid P/tag ]", the text on the lines after
  HOST,        // "tag P MM-DD HH:MM:SS  pid  tid text", later lines of a message bare
  IDE_TABLE,   // "YYYY-MM-DD HH:MM:SS.mmm  pid-tid  tag  package  P  text"
  IDE_TEXT,    // "YYYY-MM-DD HH:MM:SS.mmm pid-tid/package P/tag: text"
};

// A clock reading as the header gives it.
struct ClockReading {
  enum class Kind : uint8_t {
    CIVIL,      // a wall-clock date and time, with or without the year
    EPOCH,      // seconds since 1970-01-01 UTC
    MONOTONIC,  // seconds since the device booted
  };
  Kind kind = Kind::CIVIL;
  int year = 0;  // CIVIL: 0 when the header has none
  int month = 0;
  int day = 0;
  int64_t micros = 0;  // CIVIL: of the day; otherwise since the clock's origin
  int digits = 3;      // after the seconds: 0, 3, 6 or 9

  bool operator==(const ClockReading& other) const {
    return kind == other.kind && year == other.year && month == other.month && day == other.day &&
           micros == other.micros;
  }
};

struct CaptureLine {
  LineFormat format = LineFormat::THREADTIME;
  std::optional<ClockReading> clock;  // none in the brief format
  std::optional<int64_t> pid;         // none where the format has none
  std::optional<int64_t> tid;
  char priority = '?';         // V, D, I, W, E, F or A
  std::string_view tag;        // without the padding blanks
  std::string_view text;       // the message (or this line of it); empty for LONG
  std::size_t textColumn = 0;  // where the text starts in the line
};

// Parses `text`, one line without its line feed (a carriage return and a
// colour's escapes around it are left out). Returns nothing when no header
// layout fits. The views point into `text`.
std::optional<CaptureLine> parseCaptureLine(std::string_view text);

// `text` without a carriage return at its end and without the colour
// escapes of logcat's color adverb around it.
std::string_view withoutDecoration(std::string_view text);

}  // namespace veranda::reachabilityCache::trace
