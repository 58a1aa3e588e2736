// Builds one structured log line: "[label]: key=value key=value".
#pragma once

#include <sstream>
#include <string>
#include <type_traits>

namespace veranda::commonLog {

// One builder makes exactly one line: made on the stack where an event
// happens, filled by chained d() calls, read once with str(). Not shared
// between threads.
class LogBuilder {
 public:
  // Writes the label: "[name] context" when `context` is a non-empty text
  // other than the name extracted from `function`, "[name]" otherwise, and
  // "[context]" when `function` yields no name (a lambda's "operator()").
  // `context` may be null.
  LogBuilder(const char* function, const char* context);

  // Appends " key=value"; the first field is preceded by ":". Text values are
  // written exactly as passed. Neither argument may be null.
  LogBuilder& d(const char* key, const char* value);

  // Appends an integral value in decimal. Booleans are not accepted: write
  // them as the texts "true" and "false".
  template <typename T,
            typename = std::enable_if_t<std::is_integral_v<T> && !std::is_same_v<T, bool>>>
  LogBuilder& d(const char* key, T value) {
    beginField(key);
    stream_ << value;
    return *this;
  }

  // The line built so far.
  std::string str() const { return stream_.str(); }

  // The label to print for `text`: a bare name unchanged, the function name of
  // a full signature, the empty string for anything holding "operator()". The
  // result lives in a per-thread buffer that the next call on the same thread
  // overwrites; it holds at most 255 characters.
  static const char* extractFunctionName(const char* text);

 private:
  void beginField(const char* key);
  void append(const char* text);
  void append(char character);

  std::ostringstream stream_;
  bool hasFields_ = false;
};

}  // namespace veranda::commonLog
