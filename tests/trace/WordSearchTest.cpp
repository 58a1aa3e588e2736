// The one-pass search for the words the capture reader looks for finds
// exactly what a byte-by-byte search finds, wherever the words lie.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>

#include "WordSearch.h"

namespace veranda::reachabilityCache::trace {
namespace {

TEST(WordSearchTest, FindsTheFirstWordAnywhereLikeASimpleSearch) {
  const WordSearch search({{"ReachabilityCache", 0, 12}, {" expire ", 2, 3}, {"abc", 0, 2}});
  const std::string words[] = {"ReachabilityCache", " expire ", "abc"};
  std::mt19937 random(7);
  for (int round = 0; round < 2000; ++round) {
    // Text of near misses, and a few words at random places (the end too).
    std::string text(random() % 200, 'x');
    for (char& c : text) {
      c = "ReachabilityC expire ab\n"[random() % 24];
    }
    for (auto k = random() % 3; k > 0; --k) {
      const std::string& word = words[random() % 3];
      text.insert(random() % (text.size() + 1), word);
    }
    std::size_t expectedAt = std::string::npos;
    std::size_t expectedWord = 0;
    for (std::size_t at = 0; at < text.size() && expectedAt == std::string::npos; ++at) {
      for (std::size_t i = 0; i < 3; ++i) {
        if (text.compare(at, words[i].size(), words[i]) == 0) {
          expectedAt = at;
          expectedWord = i;
          break;
        }
      }
    }
    const WordSearch::Hit hit = search.find(text.data(), text.data() + text.size());
    ASSERT_EQ(
        hit.at == nullptr ? std::string::npos : static_cast<std::size_t>(hit.at - text.data()),
        expectedAt)
        << text;
    if (hit.at != nullptr) {
      EXPECT_EQ(hit.word, expectedWord) << text;
    }
  }
}

}  // namespace
}  // namespace veranda::reachabilityCache::trace
