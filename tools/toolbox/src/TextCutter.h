// Builds a short text from whole pieces (characters, escapes, numbers) and,
// when more is offered than fits, cuts it after the last piece that leaves
// room for "...": a text is never cut inside a piece.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace veranda::reachabilityCache::tools {

// How wide a piece is, the caller says: characters on a terminal, bytes in
// an error line. Not thread-safe; one text per cutter.
class TextCutter {
 public:
  // `limit`: the widest text, "..." included.
  explicit TextCutter(std::size_t limit) : limit_(limit) {}

  // True once more than the limit was offered: the rest would be cut.
  bool full() const { return width_ > limit_; }

  void piece(std::string_view piece, std::size_t width);

  // The text, or, when it was full, its pieces up to the cut and "...".
  std::string finish();

 private:
  std::size_t limit_;
  std::size_t width_ = 0;
  std::string text_;
  std::size_t cut_ = 0;  // the bytes kept when the text is cut
};

}  // namespace veranda::reachabilityCache::tools
