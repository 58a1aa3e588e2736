#include "memory/Arena.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace veranda::reachabilityCache {
namespace {

// Small and large requests, across many blocks: each is aligned as asked,
// and keeps what was written to it while the others are written.
TEST(ArenaTest, EveryRequestIsAlignedAndKeepsItsOwnBytes) {
  Arena arena;
  std::vector<std::pair<unsigned char*, std::size_t>> given;
  for (std::size_t i = 0; i < 3000; ++i) {
    const std::size_t bytes = i % 100 == 0 ? Arena::BLOCK_SIZE + i : 1 + i % 97;
    const std::size_t alignment = std::size_t{1} << (i % 5);  // 1 to 16
    auto* memory = static_cast<unsigned char*>(arena.allocate(bytes, alignment));
    ASSERT_EQ(reinterpret_cast<std::uintptr_t>(memory) % alignment, 0u) << "request " << i;
    std::memset(memory, static_cast<int>(i % 251), bytes);
    given.emplace_back(memory, bytes);
  }
  for (std::size_t i = 0; i < given.size(); ++i) {
    const auto [memory, bytes] = given[i];
    for (std::size_t at = 0; at < bytes; at += 1 + bytes / 7) {
      ASSERT_EQ(memory[at], i % 251) << "request " << i << " byte " << at;
    }
  }
}

// The checker relies on this: where a table's nodes come from does not
// change the order it lists its entries in.
TEST(ArenaTest, ATableInAnArenaListsItsEntriesAsOnTheHeap) {
  Arena arena;
  using ArenaMap =
      std::unordered_map<std::string, int, std::hash<std::string>, std::equal_to<std::string>,
                         ArenaAllocator<std::pair<const std::string, int>>>;
  ArenaMap inArena{ArenaMap::allocator_type(arena)};
  std::unordered_map<std::string, int> onHeap;
  for (int i = 0; i < 20000; ++i) {
    const std::string key = "endpoint-" + std::to_string(i * 7919 % 30011);
    inArena.insert_or_assign(key, i);
    onHeap.insert_or_assign(key, i);
    if (i % 9 == 0) {
      inArena.erase(inArena.begin());
      onHeap.erase(onHeap.begin());
    }
  }
  std::vector<std::pair<std::string, int>> fromArena(inArena.begin(), inArena.end());
  std::vector<std::pair<std::string, int>> fromHeap(onHeap.begin(), onHeap.end());
  EXPECT_EQ(fromArena, fromHeap);
}

#if defined(__SANITIZE_ADDRESS__)
TEST(ArenaDeathTest, MemoryGivenBackIsReportedWhenUsedUnderAddressSanitizer) {
  EXPECT_DEATH(
      {
        Arena arena;
        auto* memory = static_cast<volatile char*>(arena.allocate(64, 8));
        Arena::giveBack(const_cast<char*>(memory), 64);
        memory[3] = 1;
      },
      "use-after-poison");
}
#endif

}  // namespace
}  // namespace veranda::reachabilityCache
