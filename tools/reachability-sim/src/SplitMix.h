// The simulator's random numbers: SplitMix64, eight bytes of state, the same
// numbers on every platform and standard library.
#pragma once

#include <cstdint>

namespace veranda::reachabilityCache::sim {

// The next number of the sequence that `state` stands in.
inline uint64_t nextRandom(uint64_t& state) {
  uint64_t z = (state += 0x9E3779B97F4A7C15ULL);
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
  return z ^ (z >> 31);
}

}  // namespace veranda::reachabilityCache::sim
