#include "SafeText.h"

#include <cstdint>
#include <cstdio>

namespace veranda::reachabilityCache::tools {
namespace {

// One decoded character: its code point, or -1 for a byte that does not
// start a valid UTF-8 sequence; `length` is the number of bytes it takes.
struct Character {
  int32_t codePoint;
  std::size_t length;
};

Character decode(std::string_view text, std::size_t at) {
  const auto lead = static_cast<unsigned char>(text[at]);
  if (lead < 0x80) {
    return {lead, 1};
  }
  std::size_t length = 0;
  int32_t codePoint = 0;
  int32_t smallest = 0;
  if ((lead & 0xE0) == 0xC0) {
    length = 2;
    codePoint = lead & 0x1F;
    smallest = 0x80;
  } else if ((lead & 0xF0) == 0xE0) {
    length = 3;
    codePoint = lead & 0x0F;
    smallest = 0x800;
  } else if ((lead & 0xF8) == 0xF0) {
    length = 4;
    codePoint = lead & 0x07;
    smallest = 0x10000;
  } else {
    return {-1, 1};
  }
  if (at + length > text.size()) {
    return {-1, 1};
  }
  for (std::size_t i = 1; i < length; ++i) {
    const auto next = static_cast<unsigned char>(text[at + i]);
    if ((next & 0xC0) != 0x80) {
      return {-1, 1};
    }
    codePoint = (codePoint << 6) | (next & 0x3F);
  }
  const bool surrogate = codePoint >= 0xD800 && codePoint <= 0xDFFF;
  if (codePoint < smallest || codePoint > 0x10FFFF || surrogate) {
    return {-1, 1};
  }
  return {codePoint, length};
}

bool isControl(int32_t codePoint) {
  return codePoint < 0x20 || (codePoint >= 0x7F && codePoint <= 0x9F);
}

// Code points that XML 1.0 does not allow in a document at all.
bool isForbiddenInXml(int32_t codePoint) { return codePoint == 0xFFFE || codePoint == 0xFFFF; }

const char* const REPLACEMENT = "\xEF\xBF\xBD";  // U+FFFD

}  // namespace

std::string xmlText(std::string_view text) {
  std::string result;
  result.reserve(text.size());
  for (std::size_t at = 0; at < text.size();) {
    const Character character = decode(text, at);
    if (character.codePoint < 0 || isForbiddenInXml(character.codePoint)) {
      result += REPLACEMENT;
    } else if (isControl(character.codePoint)) {
      // dropped: an id is one line of text
    } else if (character.codePoint == '&') {
      result += "&amp;";
    } else if (character.codePoint == '<') {
      result += "&lt;";
    } else if (character.codePoint == '>') {
      result += "&gt;";
    } else if (character.codePoint == '"') {
      result += "&quot;";
    } else if (character.codePoint == '\'') {
      result += "&apos;";
    } else {
      result.append(text.substr(at, character.length));
    }
    at += character.length;
  }
  return result;
}

std::string shortened(std::string_view text, std::size_t maxCharacters) {
  std::size_t characters = 0;
  std::size_t keepBytes = 0;  // the bytes of the first maxCharacters - 3 characters
  for (std::size_t at = 0; at < text.size(); ++characters) {
    if (characters + 3 == maxCharacters) {
      keepBytes = at;
    }
    if (characters == maxCharacters) {
      return std::string(text.substr(0, keepBytes)) + "...";
    }
    at += decode(text, at).length;
  }
  return std::string(text);
}

std::string terminalText(std::string_view text) {
  std::string result;
  result.reserve(text.size());
  for (std::size_t at = 0; at < text.size();) {
    const Character character = decode(text, at);
    char escape[16];
    if (character.codePoint < 0x20 || character.codePoint == 0x7F) {  // and invalid bytes (-1)
      std::snprintf(escape, sizeof(escape), "\\x%02x", static_cast<unsigned char>(text[at]));
      result += escape;
    } else if (isControl(character.codePoint)) {
      std::snprintf(escape, sizeof(escape), "\\u%04x", static_cast<unsigned>(character.codePoint));
      result += escape;
    } else {
      result.append(text.substr(at, character.length));
    }
    at += character.length;
  }
  return result;
}

std::size_t terminalWidth(std::string_view text) {
  const std::string safe = terminalText(text);
  std::size_t characters = 0;
  for (std::size_t at = 0; at < safe.size(); ++characters) {
    at += decode(safe, at).length;
  }
  return characters;
}

std::string terminalPadded(std::string_view text, std::size_t width) {
  std::string result = terminalText(text);
  const std::size_t shown = terminalWidth(text);
  if (shown < width) {
    result.append(width - shown, ' ');
  }
  return result;
}

}  // namespace veranda::reachabilityCache::tools
