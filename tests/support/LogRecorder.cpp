#include "LogRecorder.h"

#include <android/log.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <utility>

namespace veranda::reachabilityCache::test {
namespace {

std::size_t countIn(const std::vector<LogLine>& lines, const std::string& tag,
                    const std::string& fragment) {
  return std::count_if(lines.begin(), lines.end(), [&](const LogLine& line) {
    return line.tag == tag && line.text.find(fragment) != std::string::npos;
  });
}

}  // namespace

std::ostream& operator<<(std::ostream& out, const LogLine& line) {
  return out << "{" << line.priority << ", " << line.tag << ", \"" << line.text << "\"}";
}

LogRecorder& LogRecorder::instance() {
  static LogRecorder recorder;
  return recorder;
}

void LogRecorder::record(int priority, const char* tag, const char* text) {
  static const bool echo = std::getenv("REACHABILITY_CACHE_TEST_LOG") != nullptr;
  if (echo) {
    std::cerr << priority << ' ' << tag << ' ' << text << '\n';
  }
  std::lock_guard<std::mutex> lock(mutex_);
  if (!discard_) {
    lines_.push_back({priority, tag == nullptr ? "" : tag, text});
  }
}

void LogRecorder::clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  lines_.clear();
}

void LogRecorder::setDiscard(bool discard) {
  std::lock_guard<std::mutex> lock(mutex_);
  discard_ = discard;
}

std::vector<LogLine> LogRecorder::lines() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return lines_;
}

std::vector<LogLine> LogRecorder::take() {
  std::lock_guard<std::mutex> lock(mutex_);
  return std::exchange(lines_, {});
}

std::vector<LogLine> LogRecorder::linesWithTag(const std::string& tag) const {
  std::vector<LogLine> result;
  for (LogLine& line : lines()) {
    if (line.tag == tag) {
      result.push_back(std::move(line));
    }
  }
  return result;
}

std::vector<std::string> LogRecorder::texts(const std::string& tag) const {
  std::vector<std::string> result;
  for (LogLine& line : linesWithTag(tag)) {
    result.push_back(std::move(line.text));
  }
  return result;
}

std::size_t LogRecorder::countContaining(const std::string& tag,
                                         const std::string& fragment) const {
  return countIn(lines(), tag, fragment);
}

}  // namespace veranda::reachabilityCache::test

// The test binary's platform log: every line is recorded instead of printed.
extern "C" int __android_log_print(int prio, const char* tag, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  va_list copy;
  va_copy(copy, args);
  const int length = std::vsnprintf(nullptr, 0, fmt, copy);
  va_end(copy);
  std::string text(length > 0 ? static_cast<std::size_t>(length) : 0, '\0');
  std::vsnprintf(text.data(), text.size() + 1, fmt, args);
  va_end(args);
  veranda::reachabilityCache::test::LogRecorder::instance().record(prio, tag, text.c_str());
  return length;
}
