// Finds the first of a few words in a large text, in one pass over it:
// sixteen bytes at a time, each word told by two of its rarer bytes, checked
// whole only where both are in place.
#pragma once

#include <cstddef>
#include <string_view>
#include <vector>

namespace veranda::reachabilityCache::trace {

// Not thread-safe.
class WordSearch {
 public:
  struct Word {
    std::string_view text;
    // Two positions in it whose bytes are rare in a log.
    std::size_t first = 0;
    std::size_t second = 0;
  };
  struct Hit {
    const char* at = nullptr;  // null for none
    std::size_t word = 0;      // its index in the words
  };

  static constexpr std::size_t MAX_WORDS = 4;

  // At most MAX_WORDS words; the others are left out.
  explicit WordSearch(std::vector<Word> words);

  // The first place in [from, to) where a word starts; the lower index when
  // two start there.
  Hit find(const char* from, const char* to) const;

 private:
  std::vector<Word> words_;
  std::size_t longest_ = 0;
};

}  // namespace veranda::reachabilityCache::trace
