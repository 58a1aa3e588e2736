// Builds one structured log line: "[label]: key=value key=value".
#pragma once

#include <charconv>
#include <cstddef>
#include <memory>
#include <string>
#include <type_traits>

namespace veranda::commonLog {

// The narrow character types, which a stream writes as the character itself.
template <typename T>
constexpr bool IS_NARROW_CHARACTER =
    std::is_same_v<T, char> || std::is_same_v<T, signed char> || std::is_same_v<T, unsigned char>;

// One builder makes exactly one line: made on the stack where an event
// happens, filled by chained d() calls, read once with str() or text(). Not
// shared between threads. A line of up to INLINE_CAPACITY - 1 characters is
// built without allocating.
class LogBuilder {
 public:
  static constexpr std::size_t INLINE_CAPACITY = 256;

  // Writes the label: "[name] context" when `context` is a non-empty text
  // other than the name extracted from `function`, "[name]" otherwise, and
  // "[context]" when `function` yields no name (a lambda's "operator()").
  // `context` may be null.
  LogBuilder(const char* function, const char* context);

  LogBuilder(const LogBuilder&) = delete;
  LogBuilder& operator=(const LogBuilder&) = delete;

  // Appends " key=value"; the first field is preceded by ":". Text values are
  // written exactly as passed. Neither argument may be null.
  LogBuilder& d(const char* key, const char* value);

  // Appends an integral value in plain decimal, as a stream with the default
  // formatting writes it (a narrow character type as the character itself).
  // Booleans are not accepted: write them as the texts "true" and "false".
  template <typename T,
            typename = std::enable_if_t<std::is_integral_v<T> && !std::is_same_v<T, bool>>>
  LogBuilder& d(const char* key, T value) {
    beginField(key);
    if constexpr (IS_NARROW_CHARACTER<T>) {
      append(static_cast<char>(value));
    } else {
      char digits[24];  // the longest 64-bit value and its sign
      const std::to_chars_result end = std::to_chars(digits, digits + sizeof(digits), +value);
      append(digits, static_cast<std::size_t>(end.ptr - digits));
    }
    return *this;
  }

  // The line built so far.
  std::string str() const { return {text_, size_}; }
  // The line built so far, NUL-terminated; valid until the builder changes.
  const char* text() const { return text_; }

  // The label to print for `text`: a bare name unchanged, the function name of
  // a full signature, the empty string for anything holding "operator()". The
  // result lives in a per-thread buffer that the next call on the same thread
  // overwrites; it holds at most 255 characters.
  static const char* extractFunctionName(const char* text);

 private:
  void beginField(const char* key);
  void append(const char* text);
  void append(const char* text, std::size_t length);
  void append(char character);

  char inline_[INLINE_CAPACITY];
  std::unique_ptr<char[]> heap_;  // holds the line once it outgrows inline_
  char* text_ = inline_;
  std::size_t size_ = 0;
  std::size_t capacity_ = INLINE_CAPACITY;
  bool hasFields_ = false;
};

}  // namespace veranda::commonLog
