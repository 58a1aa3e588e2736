// How the benchmarks' floors build log lines: appended into a buffer on the
// stack, the cheapest way. They write them with writeLogLine(), as the
// library does.
#pragma once

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>

namespace veranda::reachabilityCache::bench {

// Pieces of a line, made once from the log schema's names: "[label]: key=",
// " key=" and " key=value".
inline std::string labelThenKey(const char* label, const char* key) {
  return std::string("[") + label + "]: " + key + "=";
}
inline std::string field(const char* key) { return std::string(" ") + key + "="; }
inline std::string field(const char* key, const char* value) { return field(key) + value; }

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
  const char* text() {
    text_[size_] = '\0';
    return text_;
  }

 private:
  char text_[1024];
  std::size_t size_ = 0;
};

}  // namespace veranda::reachabilityCache::bench
