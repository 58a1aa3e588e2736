// How the benchmarks' floors build and write log lines: appended into a
// buffer on the stack, the cheapest way, and handed to the same platform log
// as the library's lines.
#pragma once

#include <android/log.h>

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstring>
#include <string_view>

namespace veranda::reachabilityCache::bench {

class StackLine {
 public:
  StackLine& operator<<(std::string_view text) {
    const std::size_t length = std::min(text.size(), sizeof(text_) - 1 - size_);
    std::memcpy(text_ + size_, text.data(), length);
    size_ += length;
    return *this;
  }
  StackLine& operator<<(std::size_t value) {
    char digits[24];
    const std::to_chars_result end = std::to_chars(digits, digits + sizeof(digits), value);
    return *this << std::string_view(digits, static_cast<std::size_t>(end.ptr - digits));
  }
  const char* c_str() {
    text_[size_] = '\0';
    return text_;
  }

 private:
  char text_[1024];
  std::size_t size_ = 0;
};

// Writes `text` to the platform log, as the library's lines are written.
inline void writeFloorLine(int priority, const char* tag, const char* text) {
  __android_log_print(priority, tag, "%s", text);
}

}  // namespace veranda::reachabilityCache::bench
