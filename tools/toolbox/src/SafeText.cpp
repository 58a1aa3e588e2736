#include "SafeText.h"

#include <cstdio>

#include "TextCutter.h"
#include "Utf8.h"

namespace veranda::reachabilityCache::tools {
namespace {

// Code points that XML 1.0 does not allow in a document at all.
bool isForbiddenInXml(int32_t codePoint) { return codePoint == 0xFFFE || codePoint == 0xFFFF; }

const char* const REPLACEMENT = "\xEF\xBF\xBD";  // U+FFFD

}  // namespace

std::string xmlText(std::string_view text) {
  std::string result;
  result.reserve(text.size());
  for (std::size_t at = 0; at < text.size();) {
    const Utf8Character character = decodeUtf8(text, at);
    if (character.codePoint == Utf8Character::INVALID || isForbiddenInXml(character.codePoint)) {
      result += REPLACEMENT;
    } else if (isControlCharacter(character.codePoint)) {
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
  TextCutter out(maxCharacters);
  for (std::size_t at = 0; at < text.size() && !out.full();) {
    const std::size_t length = decodeUtf8(text, at).length;
    out.piece(text.substr(at, length), 1);
    at += length;
  }
  return out.finish();
}

std::string terminalText(std::string_view text) {
  std::string result;
  result.reserve(text.size());
  for (std::size_t at = 0; at < text.size();) {
    const Utf8Character character = decodeUtf8(text, at);
    char escape[16];
    // C0, DEL and invalid bytes (whose code point is negative) as bytes.
    if (character.codePoint < 0x20 || character.codePoint == 0x7F) {
      std::snprintf(escape, sizeof(escape), "\\x%02x", static_cast<unsigned char>(text[at]));
      result += escape;
    } else if (isControlCharacter(character.codePoint)) {
      std::snprintf(escape, sizeof(escape), "\\u%04x", static_cast<unsigned>(character.codePoint));
      result += escape;
    } else {
      result.append(text.substr(at, character.length));
    }
    at += character.length;
  }
  return result;
}

std::string jsonQuoted(std::string_view text) {
  std::string result;
  result.reserve(text.size() + 2);
  result += '"';
  for (std::size_t at = 0; at < text.size();) {
    const Utf8Character character = decodeUtf8(text, at);
    if (character.codePoint == Utf8Character::INVALID) {
      result += "\\ufffd";
    } else if (character.codePoint == '"' || character.codePoint == '\\') {
      result += '\\';
      result += static_cast<char>(character.codePoint);
    } else if (character.codePoint < 0x20) {
      char escape[16];
      std::snprintf(escape, sizeof(escape), "\\u%04x", static_cast<unsigned>(character.codePoint));
      result += escape;
    } else {
      result.append(text.substr(at, character.length));
    }
    at += character.length;
  }
  result += '"';
  return result;
}

std::size_t terminalWidth(std::string_view text) {
  const std::string safe = terminalText(text);
  std::size_t characters = 0;
  for (std::size_t at = 0; at < safe.size(); ++characters) {
    at += decodeUtf8(safe, at).length;
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
