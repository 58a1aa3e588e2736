#include "checker/CapabilitySetCopy.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

namespace veranda::reachabilityCache {
namespace {

std::vector<CapabilityKeyView> listed(const CapabilitySet& set) {
  std::vector<CapabilityKeyView> keys;
  for (const CapabilityKey& key : set) {
    keys.emplace_back(key.capability, key.qualifier);
  }
  return keys;
}

// Sets of every size up to 40, grown, shrunk, copied, assigned and thinned:
// wherever a rebuild is possible, it lists the keys as a copy does and has as
// many buckets.
TEST(CapabilitySetCopyTest, ARebuiltCopyIteratesAndHashesLikeACopy) {
  std::mt19937 random(20251122);
  int rebuilt = 0;
  for (int round = 0; round < 4000; ++round) {
    CapabilitySet set;
    const auto size = static_cast<int>(random() % 41);
    for (int i = 0; i < size; ++i) {
      set.insert({"Capability" + std::to_string(random() % 60), std::to_string(random() % 3)});
    }
    if (random() % 3 == 0) {
      set.rehash(0);
    }
    if (random() % 4 == 0) {
      const CapabilitySet other = set;
      set = other;
    }
    if (random() % 5 == 0 && !set.empty()) {
      set.erase(set.begin());
    }
    if (!canRebuildCopy(set.bucket_count())) {
      continue;
    }
    ++rebuilt;
    const std::vector<CapabilityKeyView> keys = listed(set);
    const CapabilitySet copy(set);
    const CapabilitySet rebuiltCopy = rebuildCopy(keys.begin(), keys.end(), set.bucket_count());
    ASSERT_EQ(listed(rebuiltCopy), listed(copy)) << "round " << round;
    ASSERT_EQ(rebuiltCopy.bucket_count(), copy.bucket_count()) << "round " << round;
  }
  EXPECT_GT(rebuilt, 3500);  // nearly every shape can be rebuilt
}

}  // namespace
}  // namespace veranda::reachabilityCache
