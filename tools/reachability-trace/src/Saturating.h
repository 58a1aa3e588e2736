// Time arithmetic that saturates instead of overflowing: a capture's
// numbers are whatever its lines say.
#pragma once

#include <cstdint>
#include <limits>

namespace veranda::reachabilityCache::trace {

inline int64_t saturatingAdd(int64_t a, int64_t b) {
  int64_t sum = 0;
  if (__builtin_add_overflow(a, b, &sum)) {
    return b > 0 ? std::numeric_limits<int64_t>::max() : std::numeric_limits<int64_t>::min();
  }
  return sum;
}

inline int64_t saturatingSub(int64_t a, int64_t b) {
  int64_t difference = 0;
  if (__builtin_sub_overflow(a, b, &difference)) {
    return b < 0 ? std::numeric_limits<int64_t>::max() : std::numeric_limits<int64_t>::min();
  }
  return difference;
}

inline int64_t saturatingMul(int64_t a, int64_t b) {
  int64_t product = 0;
  if (__builtin_mul_overflow(a, b, &product)) {
    return (a < 0) == (b < 0) ? std::numeric_limits<int64_t>::max()
                              : std::numeric_limits<int64_t>::min();
  }
  return product;
}

}  // namespace veranda::reachabilityCache::trace
