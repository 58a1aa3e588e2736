#include "store/DriverCapabilities.h"

#include <utility>

namespace veranda::reachabilityCache {

void fileCapabilities(DriverCapabilities& driverCapabilities,
                      applianceDriver::ApplianceDriverType driverType, CapabilitySet capabilities) {
  CapabilitySet& stored = driverCapabilities[driverType];
  stored = std::move(capabilities);
  stored.rehash(0);  // drop the buckets the set grew while it was filled
}

}  // namespace veranda::reachabilityCache
