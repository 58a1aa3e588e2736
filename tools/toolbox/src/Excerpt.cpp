#include "Excerpt.h"

#include <cstdio>
#include <nlohmann/json.hpp>

#include "TextCutter.h"
#include "Utf8.h"

namespace veranda::reachabilityCache::tools {
namespace {

constexpr std::size_t ELLIPSIS = 3;  // "..."

// An excerpt's pieces are as wide as their bytes.
void piece(TextCutter& out, std::string_view text) { out.piece(text, text.size()); }

std::string escaped(const char* format, unsigned value) {
  char text[16];
  std::snprintf(text, sizeof(text), format, value);
  return text;
}

// The escape for a control character, the way JSON writers spell it.
std::string controlEscape(unsigned codePoint) {
  switch (codePoint) {
    case '\b':
      return "\\b";
    case '\t':
      return "\\t";
    case '\n':
      return "\\n";
    case '\f':
      return "\\f";
    case '\r':
      return "\\r";
    default:
      return escaped("\\u%04x", codePoint);
  }
}

// Appends the characters of `text` from `from` on until the excerpt is
// full; `quoting` also escapes '"' and '\'.
void characters(TextCutter& out, const std::string& text, std::size_t from, bool quoting) {
  for (std::size_t at = from; at < text.size() && !out.full();) {
    const Utf8Character character = decodeUtf8(text, at);
    if (character.codePoint == Utf8Character::INVALID) {
      piece(out, escaped("\\x%02X", static_cast<unsigned char>(text[at])));
    } else if (isControlCharacter(character.codePoint)) {
      piece(out, controlEscape(static_cast<unsigned>(character.codePoint)));
    } else if (quoting && (character.codePoint == '"' || character.codePoint == '\\')) {
      piece(out, std::string("\\") + text[at]);
    } else {
      piece(out, std::string_view(text).substr(at, character.length));
    }
    at += character.length;
  }
}

void quoted(TextCutter& out, const std::string& text) {
  piece(out, "\"");
  characters(out, text, 0, true);
  piece(out, "\"");
}

// Appends `value` until the excerpt is full. Every level appends a piece
// before it descends, so the depth of the calls is bounded by the length of
// an excerpt, not by the nesting of the value.
void appendValue(const nlohmann::json& value, TextCutter& out) {
  if (out.full()) {
    return;
  }
  if (value.is_string()) {
    quoted(out, value.get_ref<const std::string&>());
    return;
  }
  if (!value.is_structured()) {
    piece(out, value.dump());
    return;
  }
  const bool isObject = value.is_object();
  piece(out, isObject ? "{" : "[");
  bool first = true;
  for (auto item = value.begin(); item != value.end() && !out.full(); ++item) {
    if (!first) {
      piece(out, ",");
    }
    first = false;
    if (isObject) {
      quoted(out, item.key());
      piece(out, ":");
    }
    appendValue(item.value(), out);
  }
  piece(out, isObject ? "}" : "]");
}

}  // namespace

std::string excerpt(const nlohmann::json& value) {
  TextCutter out(EXCERPT_LENGTH);
  appendValue(value, out);
  return out.finish();
}

std::string quotedExcerpt(const std::string& text) {
  TextCutter out(EXCERPT_LENGTH);
  quoted(out, text);
  return out.finish();
}

std::string tailExcerpt(const std::string& text) {
  // The last characters are kept whole, escapes included, so no limit cuts
  // them: escapes make the tail at most a few times longer.
  TextCutter out(std::string::npos);
  std::size_t from = 0;
  if (text.size() > EXCERPT_LENGTH) {
    from = text.size() - (EXCERPT_LENGTH - ELLIPSIS);
    while (from < text.size() && (static_cast<unsigned char>(text[from]) & 0xC0) == 0x80) {
      ++from;  // start at a whole character
    }
    piece(out, "...");
  }
  characters(out, text, from, false);
  return out.finish();
}

}  // namespace veranda::reachabilityCache::tools
