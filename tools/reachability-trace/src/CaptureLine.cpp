#include "CaptureLine.h"

#include <algorithm>
#include <cctype>

namespace veranda::reachabilityCache::trace {
namespace {

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
  // Exactly `count` digits.
  bool digits(int count, int64_t& value) {
    int64_t result = 0;
    for (int i = 0; i < count; ++i) {
      if (std::isdigit(static_cast<unsigned char>(peek(i))) == 0) {
        return false;
      }
      result = result * 10 + (peek(i) - '0');
    }
    at_ += static_cast<std::size_t>(count);
    value = result;
    return true;
  }
  // One or more digits.
  bool number(int64_t& value) {
    int count = 0;
    while (std::isdigit(static_cast<unsigned char>(peek(count))) != 0 && count < 12) {
      ++count;
    }
    return count > 0 && digits(count, value);
  }
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

bool isPriority(char c) {
  return c == 'V' || c == 'D' || c == 'I' || c == 'W' || c == 'E' || c == 'F' || c == 'A';
}

bool isNumber(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
    return std::isdigit(static_cast<unsigned char>(c)) != 0;
  });
}

int toInt(std::string_view text) {
  int value = 0;
  for (char c : text) {
    value = value * 10 + (c - '0');
  }
  return value;
}

std::string_view trimmedRight(std::string_view text) {
  while (!text.empty() && text.back() == ' ') {
    text.remove_suffix(1);
  }
  return text;
}

// [YYYY-]MM-DD HH:MM:SS[.fff[fff]]; the fraction is required unless
// `secondsOnly`.
bool readClock(Cursor& in, bool secondsOnly, ClockReading& clock) {
  int64_t first = 0;
  int64_t month = 0;
  int64_t day = 0;
  if (!in.digits(2, first)) {
    return false;
  }
  if (in.peek() != '-') {  // a year: two more digits
    int64_t low = 0;
    if (!in.digits(2, low) || !in.skip('-')) {
      return false;
    }
    clock.year = static_cast<int>(first * 100 + low);
    if (!in.digits(2, month)) {
      return false;
    }
  } else {
    month = first;
  }
  int64_t hours = 0;
  int64_t minutes = 0;
  int64_t seconds = 0;
  if (!in.skip('-') || !in.digits(2, day) || !in.skip(' ') || !in.digits(2, hours) ||
      !in.skip(':') || !in.digits(2, minutes) || !in.skip(':') || !in.digits(2, seconds)) {
    return false;
  }
  int64_t micros = 0;
  if (in.skip('.')) {
    int64_t fraction = 0;
    if (in.digits(6, fraction)) {
      micros = fraction;
    } else if (in.digits(3, fraction)) {
      micros = fraction * 1000;
    } else {
      return false;
    }
  } else if (!secondsOnly) {
    return false;
  }
  if (month < 1 || month > 12 || day < 1 || day > 31 || hours > 23 || minutes > 59 ||
      seconds > 60) {
    return false;
  }
  clock.month = static_cast<int>(month);
  clock.day = static_cast<int>(day);
  clock.microsOfDay = ((hours * 60 + minutes) * 60 + seconds) * 1000000 + micros;
  return true;
}

// "P/tag( pid): text" or "P/tag(uid: pid): text", the ending of the time and
// brief formats.
bool readSlashHeader(Cursor& in, CaptureLine& line) {
  if (!isPriority(in.peek()) || in.peek(1) != '/') {
    return false;
  }
  line.priority = in.peek();
  in.moveTo(in.position() + 2);
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
  if (!isNumber(inside)) {
    return false;
  }
  line.pid = toInt(inside);
  line.text = rest.substr(close + 3);
  return true;
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
  if (count < 2 || !isPriority(in.peek()) || in.peek(1) != ' ' || !isNumber(words[count - 1]) ||
      !isNumber(words[count - 2])) {
    return false;
  }
  line.pid = toInt(words[count - 2]);
  line.tid = toInt(words[count - 1]);
  line.priority = in.peek();
  in.moveTo(in.position() + 2);
  const std::string_view rest = in.rest();
  const std::size_t colon = rest.find(": ");
  if (colon == std::string_view::npos) {
    // A message line left empty ends with the colon.
    if (rest.empty() || rest.back() != ':') {
      return false;
    }
    line.tag = trimmedRight(rest.substr(0, rest.size() - 1));
    line.text = {};
    return true;
  }
  line.tag = trimmedRight(rest.substr(0, colon));
  line.text = rest.substr(colon + 2);
  return true;
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
  if (!readClock(in, true, clock)) {
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
  line.pid = static_cast<int>(pid);
  line.tid = static_cast<int>(tid);
  line.text = in.rest();
  return true;
}

}  // namespace

std::optional<CaptureLine> parseCaptureLine(std::string_view text) {
  if (!text.empty() && text.back() == '\r') {
    text.remove_suffix(1);
  }
  CaptureLine line;
  Cursor in(text);
  if (std::isdigit(static_cast<unsigned char>(in.peek())) != 0) {
    ClockReading clock;
    if (!readClock(in, false, clock) || !in.skipBlanks()) {
      return std::nullopt;
    }
    line.clock = clock;
    const std::size_t afterClock = in.position();
    if (readSlashHeader(in, line)) {
      line.format = LineFormat::TIME;
      return line;
    }
    in.moveTo(afterClock);
    line.format = LineFormat::THREADTIME;
    return readThreadtimeRest(in, line) ? std::optional<CaptureLine>(line) : std::nullopt;
  }
  if (in.peek(1) == '/') {
    line.format = LineFormat::BRIEF;
    return readSlashHeader(in, line) ? std::optional<CaptureLine>(line) : std::nullopt;
  }
  line.format = LineFormat::HOST;
  return readHostLine(in, line) ? std::optional<CaptureLine>(line) : std::nullopt;
}

}  // namespace veranda::reachabilityCache::trace
