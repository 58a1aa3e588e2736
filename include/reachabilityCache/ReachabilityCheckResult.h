// One endpoint's answer from a reachability checker.
#pragma once

#include <string>
#include <utility>

#include "applianceDriver/ApplianceDriver.h"
#include "reachabilityCache/CapabilityKey.h"

namespace veranda::reachabilityCache {

struct ReachabilityCheckResult {
  ReachabilityCheckResult(const std::string& endpointId, const std::string& entityId,
                          const std::string& adapterName, bool isReachable,
                          CapabilitySet capabilities,
                          applianceDriver::ApplianceDriverType driverType)
      : endpointId(endpointId),
        entityId(entityId),
        adapterName(adapterName),
        isReachable(isReachable),
        capabilities(std::move(capabilities)),
        driverType(driverType) {}

  std::string endpointId;   // matches the result to the requested endpoint
  std::string entityId;     // may be empty (state-change results leave it empty)
  std::string adapterName;  // may be empty
  bool isReachable;
  CapabilitySet capabilities;  // what the endpoint offers through this driver
  applianceDriver::ApplianceDriverType driverType;
};

}  // namespace veranda::reachabilityCache
