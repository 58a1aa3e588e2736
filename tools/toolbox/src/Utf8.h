// Reading UTF-8 one character at a time, from text that need not be valid
// UTF-8: the one decoder of every text the tools show.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace veranda::reachabilityCache::tools {

// A character of a text: its code point, or INVALID for a byte that does
// not start a well-formed sequence (overlong forms, surrogates, code points
// above U+10FFFF and cut sequences included); `length` is the number of
// bytes it takes, 1 for an invalid byte.
struct Utf8Character {
  static constexpr int32_t INVALID = -1;
  int32_t codePoint = INVALID;
  std::size_t length = 1;
};

// The character that starts at text[at]; `at` is less than text.size().
Utf8Character decodeUtf8(std::string_view text, std::size_t at);

// True for C0 and C1 control characters and DEL.
bool isControlCharacter(int32_t codePoint);

}  // namespace veranda::reachabilityCache::tools
