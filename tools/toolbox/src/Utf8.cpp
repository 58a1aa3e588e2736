#include "Utf8.h"

namespace veranda::reachabilityCache::tools {

Utf8Character decodeUtf8(std::string_view text, std::size_t at) {
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
    return {};
  }
  if (at + length > text.size()) {
    return {};
  }
  for (std::size_t i = 1; i < length; ++i) {
    const auto next = static_cast<unsigned char>(text[at + i]);
    if ((next & 0xC0) != 0x80) {
      return {};
    }
    codePoint = (codePoint << 6) | (next & 0x3F);
  }
  const bool surrogate = codePoint >= 0xD800 && codePoint <= 0xDFFF;
  if (codePoint < smallest || codePoint > 0x10FFFF || surrogate) {
    return {};
  }
  return {codePoint, length};
}

bool isControlCharacter(int32_t codePoint) {
  return (codePoint >= 0 && codePoint < 0x20) || (codePoint >= 0x7F && codePoint <= 0x9F);
}

}  // namespace veranda::reachabilityCache::tools
