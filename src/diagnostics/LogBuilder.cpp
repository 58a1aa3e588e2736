#include "diagnostics/LogBuilder.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace veranda::commonLog {
namespace {

constexpr std::size_t LABEL_CAPACITY = 256;
constexpr std::size_t NOT_FOUND = static_cast<std::size_t>(-1);

bool isNameCharacter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}

// Index of the "(" that opens the parameter list closed at `close`, or
// NOT_FOUND when the parentheses do not balance.
std::size_t findOpeningParenthesis(const char* text, std::size_t close) {
  int depth = 1;
  for (std::size_t i = close; i-- > 0;) {
    if (text[i] == ')') {
      ++depth;
    } else if (text[i] == '(' && --depth == 0) {
      return i;
    }
  }
  return NOT_FOUND;
}

// Index of the last character of the name before the "(" at `open`, skipping
// blanks and tabs, or NOT_FOUND when the start of the text is reached.
std::size_t findNameEnd(const char* text, std::size_t open) {
  for (std::size_t i = open; i-- > 0;) {
    if (text[i] != ' ' && text[i] != '\t') {
      return i;
    }
  }
  return NOT_FOUND;
}

}  // namespace

LogBuilder::LogBuilder(const char* function, const char* context) {
  inline_[0] = '\0';
  const char* name = extractFunctionName(function);
  append('[');
  if (*name != '\0') {
    append(name);
    append(']');
    if (context != nullptr && *context != '\0' && std::strcmp(context, name) != 0) {
      append(' ');
      append(context);
    }
  } else {
    if (context != nullptr) {
      append(context);
    }
    append(']');
  }
}

LogBuilder& LogBuilder::d(const char* key, const char* value) {
  beginField(key);
  append(value);
  return *this;
}

void LogBuilder::beginField(const char* key) {
  if (!hasFields_) {
    append(':');
    hasFields_ = true;
  }
  append(' ');
  append(key);
  append('=');
}

void LogBuilder::append(const char* text) { append(text, std::strlen(text)); }

void LogBuilder::append(const char* text, std::size_t length) {
  if (size_ + length >= capacity_) {
    // Doubling keeps a long line (a check's details) to a few allocations.
    const std::size_t capacity = std::max(2 * capacity_, size_ + length + 1);
    auto grown = std::make_unique<char[]>(capacity);
    std::memcpy(grown.get(), text_, size_);
    heap_ = std::move(grown);
    text_ = heap_.get();
    capacity_ = capacity;
  }
  std::memcpy(text_ + size_, text, length);
  size_ += length;
  text_[size_] = '\0';
}

void LogBuilder::append(char character) { append(&character, 1); }

const char* LogBuilder::extractFunctionName(const char* text) {
  thread_local char label[LABEL_CAPACITY];
  if (std::strstr(text, "operator()") != nullptr) {
    label[0] = '\0';
    return label;
  }
  const char* close = std::strrchr(text, ')');
  if (close == nullptr || close == text) {
    return text;
  }
  const std::size_t open = findOpeningParenthesis(text, static_cast<std::size_t>(close - text));
  if (open == NOT_FOUND) {
    return text;
  }
  const std::size_t last = findNameEnd(text, open);
  if (last == NOT_FOUND) {
    return text;
  }
  std::size_t first = last;
  while (first > 0 && isNameCharacter(text[first - 1])) {
    --first;
  }
  const std::size_t length = std::min(last + 1 - first, LABEL_CAPACITY - 1);
  std::memcpy(label, text + first, length);
  label[length] = '\0';
  return label;
}

}  // namespace veranda::commonLog
