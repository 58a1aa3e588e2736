#include "checker/CapabilitySetCopy.h"

namespace veranda::reachabilityCache {

bool canRebuildCopy(std::size_t bucketCount) {
  CapabilitySet probe;
  probe.rehash(bucketCount);
  return probe.bucket_count() == bucketCount;
}

}  // namespace veranda::reachabilityCache
