#include "CaptureLine.h"

#include <algorithm>
#include <cctype>

namespace veranda::reachabilityCache::trace {
namespace {

// Pids, tids and seconds beyond this many digits are not a header's.
constexpr int MAX_DIGITS = 18;
// Fewer integer digits than this make seconds since boot, more since 1970.
constexpr int EPOCH_DIGITS = 9;

bool isDigit(char c) { return std::isdigit(static_cast<unsigned char>(c)) != 0; }

bool isPriority(char c) {
  return c == 'V' || c == 'D' || c == 'I' || c == 'W' || c == 'E' || c == 'F' || c == 'A';
}

// Reads the text of a line from left to right; every read either succeeds
// and moves on, or fails and leaves the position where it was.
class Cursor {
 public:
  explicit Cursor(std::string_view text) : text_(text) {}

  bool atEnd() const { return at_ >= text_.size(); }
  std::size_t position() const { return at_; }
  void moveTo(std::size_t at) { at_ = at; }
  char peek(std::size_t ahead = 0) const {
    return at_ + ahead < text_.size() ? text_[at_ + ahead] : '\0';
  }
  std::string_view rest() const { return text_.substr(std::min(at_, text_.size())); }

  bool skip(char c) {
    if (peek() != c) {
      return false;
    }
    ++at_;
    return true;
  }
  // Skips blanks; true when there was at least one.
  bool skipBlanks() {
    const std::size_t from = at_;
    while (peek() == ' ') {
      ++at_;
    }
    return at_ > from;
  }
  // The number of digits from here on.
  int digitsAhead() const {
    int count = 0;
    while (isDigit(peek(static_cast<std::size_t>(count))) && count <= MAX_DIGITS) {
      ++count;
    }
    return count;
  }
  // Exactly `count` digits (at most MAX_DIGITS).
  bool digits(int count, int64_t& value) {
    if (count <= 0 || count > MAX_DIGITS) {
      return false;
    }
    int64_t result = 0;
    for (int i = 0; i < count; ++i) {
      if (!isDigit(peek(static_cast<std::size_t>(i)))) {
        return false;
      }
      result = result * 10 + (peek(static_cast<std::size_t>(i)) - '0');
    }
    at_ += static_cast<std::size_t>(count);
    value = result;
    return true;
  }
  // One to MAX_DIGITS digits, and no digit after them.
  bool number(int64_t& value) { return digits(digitsAhead(), value); }
  // A run of characters that are not blanks.
  std::string_view word() {
    const std::size_t from = at_;
    while (!atEnd() && peek() != ' ') {
      ++at_;
    }
    return text_.substr(from, at_ - from);
  }

 private:
  std::string_view text_;
  std::size_t at_ = 0;
};

// The whole of `text` as a number of at most MAX_DIGITS digits.
std::optional<int64_t> wholeNumber(std::string_view text) {
  Cursor in(text);
  int64_t value = 0;
  if (!in.number(value) || !in.atEnd()) {
    return std::nullopt;
  }
  return value;
}

std::string_view trimmedRight(std::string_view text) {
  while (!text.empty() && text.back() == ' ') {
    text.remove_suffix(1);
  }
  return text;
}

// A fraction of a second of 3, 6 or 9 digits, in microseconds.
bool readFraction(Cursor& in, ClockReading& clock) {
  const int count = in.digitsAhead();
  int64_t fraction = 0;
  if ((count != 3 && count != 6 && count != 9) || !in.digits(count, fraction)) {
    return false;
  }
  clock.digits = count;
  clock.micros += count == 3 ? fraction * 1000 : count == 6 ? fraction : fraction / 1000;
  return true;
}

// [YYYY-]MM-DD HH:MM:SS[.fraction]; the fraction is required unless
// `secondsOnly`.
bool readCivil(Cursor& in, bool secondsOnly, ClockReading& clock) {
  int64_t year = 0;
  int64_t month = 0;
  int64_t day = 0;
  if (in.digitsAhead() == 4 && in.peek(4) == '-') {
    in.digits(4, year);
    in.skip('-');
  }
  int64_t hours = 0;
  int64_t minutes = 0;
  int64_t seconds = 0;
  if (!in.digits(2, month) || !in.skip('-') || !in.digits(2, day) || !in.skip(' ') ||
      !in.digits(2, hours) || !in.skip(':') || !in.digits(2, minutes) || !in.skip(':') ||
      !in.digits(2, seconds)) {
    return false;
  }
  if (month < 1 || month > 12 || day < 1 || day > 31 || hours > 23 || minutes > 59 ||
      seconds > 60) {
    return false;
  }
  clock.kind = ClockReading::Kind::CIVIL;
  clock.year = static_cast<int>(year);
  clock.month = static_cast<int>(month);
  clock.day = static_cast<int>(day);
  clock.micros = ((hours * 60 + minutes) * 60 + seconds) * 1000000;
  clock.digits = 0;
  if (in.skip('.')) {
    return readFraction(in, clock);
  }
  return secondsOnly;
}

// Any clock of logcat's: civil, seconds since 1970 or seconds since boot
// (right-aligned), then an optional zone ("+0100").
bool readClock(Cursor& in, ClockReading& clock) {
  in.skipBlanks();
  const int count = in.digitsAhead();
  if (in.peek(static_cast<std::size_t>(count)) == '-') {
    if (!readCivil(in, false, clock)) {
      return false;
    }
  } else {
    int64_t seconds = 0;
    if (!in.digits(count, seconds) || count > 12 || !in.skip('.')) {
      return false;
    }
    clock.kind = count >= EPOCH_DIGITS ? ClockReading::Kind::EPOCH : ClockReading::Kind::MONOTONIC;
    clock.micros = seconds * 1000000;
    if (!readFraction(in, clock)) {
      return false;
    }
  }
  const std::size_t beforeZone = in.position();
  int64_t zone = 0;
  if (!(in.skip(' ') && (in.skip('+') || in.skip('-')) && in.digits(4, zone) && in.peek() == ' ')) {
    in.moveTo(beforeZone);
  }
  return true;
}

// "P/tag( pid): text" or "P/tag(uid: pid): text", the ending of the time and
// brief layouts.
bool readSlashHeader(Cursor& in, CaptureLine& line) {
  if (!isPriority(in.peek()) || in.peek(1) != '/') {
    return false;
  }
  line.priority = in.peek();
  in.moveTo(in.position() + 2);
  const std::size_t start = in.position();
  const std::string_view rest = in.rest();
  const std::size_t close = rest.find("): ");
  const std::size_t open = rest.rfind('(', close);
  if (close == std::string_view::npos || open == std::string_view::npos) {
    return false;
  }
  line.tag = trimmedRight(rest.substr(0, open));
  std::string_view inside = rest.substr(open + 1, close - open - 1);
  const std::size_t colon = inside.rfind(':');
  if (colon != std::string_view::npos) {
    inside = inside.substr(colon + 1);
  }
  while (!inside.empty() && inside.front() == ' ') {
    inside.remove_prefix(1);
  }
  line.pid = wholeNumber(inside);
  line.text = rest.substr(close + 3);
  line.textColumn = start + close + 3;
  return line.pid.has_value();
}

// "[uid] pid tid P tag: text" after the threadtime clock.
bool readThreadtimeRest(Cursor& in, CaptureLine& line) {
  std::string_view words[3];
  int count = 0;
  while (count < 3) {
    in.skipBlanks();
    const std::size_t before = in.position();
    const std::string_view word = in.word();
    if (word.size() == 1 && isPriority(word[0])) {
      in.moveTo(before);
      break;
    }
    words[count++] = word;
  }
  in.skipBlanks();
  if (count < 2 || !isPriority(in.peek()) || in.peek(1) != ' ') {
    return false;
  }
  line.pid = wholeNumber(words[count - 2]);
  line.tid = wholeNumber(words[count - 1]);
  if (!line.pid || !line.tid) {
    return false;
  }
  line.priority = in.peek();
  in.moveTo(in.position() + 2);
  const std::size_t start = in.position();
  const std::string_view rest = in.rest();
  const std::size_t colon = rest.find(": ");
  if (colon == std::string_view::npos) {
    // A message line left empty ends with the colon.
    if (rest.empty() || rest.back() != ':') {
      return false;
    }
    line.tag = trimmedRight(rest.substr(0, rest.size() - 1));
    line.text = {};
    line.textColumn = start + rest.size();
    return true;
  }
  line.tag = trimmedRight(rest.substr(0, colon));
  line.text = rest.substr(colon + 2);
  line.textColumn = start + colon + 2;
  return true;
}

// "pid-tid" into the line; `end` is where the tid ends.
bool readPidTid(std::string_view word, CaptureLine& line) {
  const std::size_t dash = word.find('-');
  if (dash == std::string_view::npos) {
    return false;
  }
  line.pid = wholeNumber(word.substr(0, dash));
  line.tid = wholeNumber(word.substr(dash + 1));
  return line.pid && line.tid;
}

// "pid-tid  tag  package  P  text" after the clock: the table an IDE copies.
bool readIdeTable(Cursor& in, CaptureLine& line) {
  if (!readPidTid(in.word(), line) || !in.skipBlanks()) {
    return false;
  }
  line.tag = in.word();
  if (!in.skipBlanks() || in.word().empty() || !in.skipBlanks() || !isPriority(in.peek()) ||
      in.peek(1) != ' ') {
    return false;
  }
  line.priority = in.peek();
  in.moveTo(in.position() + (in.peek(2) == ' ' ? 3 : 2));
  line.text = in.rest();
  line.textColumn = in.position();
  return !line.tag.empty();
}

// "pid-tid/package P/tag: text" after the clock: the text an older IDE copies.
bool readIdeText(Cursor& in, CaptureLine& line) {
  const std::string_view word = in.word();
  const std::size_t slash = word.find('/');
  if (slash == std::string_view::npos || !readPidTid(word.substr(0, slash), line) ||
      !in.skip(' ') || !isPriority(in.peek()) || in.peek(1) != '/') {
    return false;
  }
  line.priority = in.peek();
  in.moveTo(in.position() + 2);
  const std::size_t start = in.position();
  const std::string_view rest = in.rest();
  const std::size_t colon = rest.find(": ");
  if (colon == std::string_view::npos) {
    return false;
  }
  line.tag = trimmedRight(rest.substr(0, colon));
  line.text = rest.substr(colon + 2);
  line.textColumn = start + colon + 2;
  return true;
}

// "[ clock [uid:] pid: tid P/tag ]": the header of the long layout.
bool readLongHeader(std::string_view text, CaptureLine& line) {
  if (text.size() < 4 || text.substr(0, 2) != "[ " || text.substr(text.size() - 2) != " ]") {
    return false;
  }
  Cursor in(text.substr(2, text.size() - 4));
  ClockReading clock;
  if (!readClock(in, clock)) {
    return false;
  }
  line.clock = clock;
  std::string_view words[4];
  int count = 0;
  while (count < 4 && (in.skipBlanks(), !in.atEnd())) {
    words[count++] = in.word();
  }
  if (!in.atEnd() || count < 3) {
    return false;
  }
  const std::string_view pid = words[count - 3];
  const std::string_view last = words[count - 1];
  if (pid.empty() || pid.back() != ':' || last.size() < 3 || !isPriority(last[0]) ||
      last[1] != '/') {
    return false;
  }
  line.pid = wholeNumber(pid.substr(0, pid.size() - 1));
  line.tid = wholeNumber(words[count - 2]);
  line.priority = last[0];
  line.tag = last.substr(2);
  line.format = LineFormat::LONG;
  line.textColumn = text.size();
  return line.pid && line.tid;
}

// "tag P MM-DD HH:MM:SS pid tid text": the host liblog's line.
bool readHostLine(Cursor& in, CaptureLine& line) {
  line.tag = in.word();
  if (line.tag.empty() || !in.skip(' ') || !isPriority(in.peek()) || in.peek(1) != ' ') {
    return false;
  }
  line.priority = in.peek();
  in.moveTo(in.position() + 2);
  ClockReading clock;
  if (!readCivil(in, true, clock)) {
    return false;
  }
  line.clock = clock;
  int64_t pid = 0;
  int64_t tid = 0;
  in.skipBlanks();
  if (!in.number(pid)) {
    return false;
  }
  in.skipBlanks();
  if (!in.number(tid) || !in.skip(' ')) {
    return false;
  }
  line.pid = pid;
  line.tid = tid;
  line.text = in.rest();
  line.textColumn = in.position();
  return true;
}

// The layouts that start with a clock.
std::optional<CaptureLine> readClockFirst(std::string_view text) {
  CaptureLine line;
  Cursor in(text);
  ClockReading clock;
  if (!readClock(in, clock) || !in.skipBlanks()) {
    return std::nullopt;
  }
  line.clock = clock;
  const std::size_t afterClock = in.position();
  const auto attempt = [&](LineFormat format, bool (*read)(Cursor&, CaptureLine&)) {
    in.moveTo(afterClock);
    line = CaptureLine{};
    line.clock = clock;
    line.format = format;
    return read(in, line);
  };
  if (attempt(LineFormat::TIME, readSlashHeader) || attempt(LineFormat::IDE_TABLE, readIdeTable) ||
      attempt(LineFormat::IDE_TEXT, readIdeText) ||
      attempt(LineFormat::THREADTIME, readThreadtimeRest)) {
    return line;
  }
  return std::nullopt;
}

}  // namespace

std::string_view withoutDecoration(std::string_view text) {
  if (!text.empty() && text.back() == '\r') {
    text.remove_suffix(1);
  }
  constexpr std::string_view RESET = "\x1b[0m";
  if (text.size() >= RESET.size() && text.substr(text.size() - RESET.size()) == RESET) {
    text.remove_suffix(RESET.size());
  }
  if (text.size() >= 2 && text[0] == '\x1b' && text[1] == '[') {
    const std::size_t end = text.find('m');
    if (end != std::string_view::npos) {
      text.remove_prefix(end + 1);
    }
  }
  return text;
}

std::optional<CaptureLine> parseCaptureLine(std::string_view text) {
  text = withoutDecoration(text);
  CaptureLine line;
  if (readLongHeader(text, line)) {
    return line;
  }
  if (!text.empty() && (isDigit(text[0]) || text[0] == ' ')) {
    return readClockFirst(text);
  }
  Cursor in(text);
  if (in.peek(1) == '/') {
    line.format = LineFormat::BRIEF;
    return readSlashHeader(in, line) ? std::optional<CaptureLine>(line) : std::nullopt;
  }
  line.format = LineFormat::HOST;
  return readHostLine(in, line) ? std::optional<CaptureLine>(line) : std::nullopt;
}

}  // namespace veranda::reachabilityCache::trace
