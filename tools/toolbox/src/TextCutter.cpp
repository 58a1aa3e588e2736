#include "TextCutter.h"

namespace veranda::reachabilityCache::tools {
namespace {

constexpr std::string_view ELLIPSIS = "...";

}  // namespace

void TextCutter::piece(std::string_view piece, std::size_t width) {
  text_.append(piece);
  width_ += width;
  if (limit_ >= ELLIPSIS.size() && width_ <= limit_ - ELLIPSIS.size()) {
    cut_ = text_.size();
  }
}

std::string TextCutter::finish() {
  if (full()) {
    text_.resize(cut_);
    text_.append(ELLIPSIS);
  }
  return std::move(text_);
}

}  // namespace veranda::reachabilityCache::tools
