// Filing of one driver type's capabilities in a stored record.
#pragma once

#include "reachabilityCache/CachedEndpoint.h"

namespace veranda::reachabilityCache {

// Files `capabilities` under `driverType`, replacing what that driver type
// held, with a bucket array sized for what the set holds: stored records keep
// their sets for long.
void fileCapabilities(DriverCapabilities& driverCapabilities,
                      applianceDriver::ApplianceDriverType driverType, CapabilitySet capabilities);

}  // namespace veranda::reachabilityCache
