#include "Excerpt.h"

#include <cstdio>
#include <nlohmann/json.hpp>

namespace veranda::reachabilityCache::sim {
namespace {

constexpr std::size_t ELLIPSIS = 3;  // "..."

// Collects the pieces of an excerpt and remembers where it may be cut: a
// piece (a character, an escape, a number) is kept whole or not at all.
class ExcerptWriter {
 public:
  // `limit`: the longest excerpt, "..." included.
  explicit ExcerptWriter(std::size_t limit = EXCERPT_LENGTH) : limit_(limit) {}

  bool full() const { return text_.size() > limit_; }

  void piece(const std::string& piece) {
    text_ += piece;
    if (text_.size() <= limit_ - ELLIPSIS) {
      cut_ = text_.size();
    }
  }

  void quoted(const std::string& text) {
    piece("\"");
    characters(text, 0, true);
    piece("\"");
  }

  // Appends the characters of `text` from `from` on until the excerpt is
  // full; `quoting` also escapes '"' and '\'.
  void characters(const std::string& text, std::size_t from, bool quoting);

  std::string finish() {
    if (full()) {
      text_.resize(cut_);
      text_ += "...";
    }
    return text_;
  }

 private:
  std::size_t limit_;
  std::string text_;
  std::size_t cut_ = 0;
};

// The length of the well-formed UTF-8 sequence at text[at]; 0 for none.
std::size_t sequenceLength(const std::string& text, std::size_t at) {
  const auto byte = [&text](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char lead = byte(at);
  std::size_t length = 0;
  unsigned char low = 0x80;  // the range of the second byte
  unsigned char high = 0xBF;
  if (lead < 0x80) {
    return 1;
  }
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3;
    low = lead == 0xE0 ? 0xA0 : low;    // no overlong forms
    high = lead == 0xED ? 0x9F : high;  // no surrogates
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
    low = lead == 0xF0 ? 0x90 : low;
    high = lead == 0xF4 ? 0x8F : high;  // nothing above U+10FFFF
  } else {
    return 0;
  }
  if (at + length > text.size() || byte(at + 1) < low || byte(at + 1) > high) {
    return 0;
  }
  for (std::size_t i = 2; i < length; ++i) {
    if (byte(at + i) < 0x80 || byte(at + i) > 0xBF) {
      return 0;
    }
  }
  return length;
}

std::string escaped(const char* format, unsigned value) {
  char text[8];
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

void ExcerptWriter::characters(const std::string& text, std::size_t from, bool quoting) {
  for (std::size_t at = from; at < text.size() && !full();) {
    const std::size_t length = sequenceLength(text, at);
    const auto lead = static_cast<unsigned char>(text[at]);
    const auto second = length == 2 ? static_cast<unsigned char>(text[at + 1]) : 0u;
    if (length == 0) {
      piece(escaped("\\x%02X", lead));
      at += 1;
      continue;
    }
    if (lead < 0x20 || lead == 0x7F) {
      piece(controlEscape(lead));
    } else if (lead == 0xC2 && second < 0xA0) {
      piece(controlEscape(second));  // C1: U+0080 to U+009F
    } else if (quoting && (lead == '"' || lead == '\\')) {
      piece(std::string("\\") + text[at]);
    } else {
      piece(text.substr(at, length));
    }
    at += length;
  }
}

// Appends `value` until the excerpt is full. Every level appends a piece
// before it descends, so the depth of the calls is bounded by the length of
// an excerpt, not by the nesting of the value.
void appendValue(const nlohmann::json& value, ExcerptWriter& out) {
  if (out.full()) {
    return;
  }
  if (value.is_string()) {
    out.quoted(value.get_ref<const std::string&>());
    return;
  }
  if (!value.is_structured()) {
    out.piece(value.dump());
    return;
  }
  const bool isObject = value.is_object();
  out.piece(isObject ? "{" : "[");
  bool first = true;
  for (auto item = value.begin(); item != value.end() && !out.full(); ++item) {
    if (!first) {
      out.piece(",");
    }
    first = false;
    if (isObject) {
      out.quoted(item.key());
      out.piece(":");
    }
    appendValue(item.value(), out);
  }
  out.piece(isObject ? "}" : "]");
}

}  // namespace

std::string excerpt(const nlohmann::json& value) {
  ExcerptWriter out;
  appendValue(value, out);
  return out.finish();
}

std::string quotedExcerpt(const std::string& text) {
  ExcerptWriter out;
  out.quoted(text);
  return out.finish();
}

std::string tailExcerpt(const std::string& text) {
  // The last characters are kept whole, escapes included, so no limit cuts
  // them: escapes make the tail at most a few times longer.
  ExcerptWriter out(std::string::npos);
  std::size_t from = 0;
  if (text.size() > EXCERPT_LENGTH) {
    from = text.size() - (EXCERPT_LENGTH - ELLIPSIS);
    while (from < text.size() && (static_cast<unsigned char>(text[from]) & 0xC0) == 0x80) {
      ++from;  // start at a whole character
    }
    out.piece("...");
  }
  out.characters(text, from, false);
  return out.finish();
}

}  // namespace veranda::reachabilityCache::sim
