// One endpoint's answer from a reachability checker.
#pragma once

#include <string>
#include <utility>

#include "applianceDriver/ApplianceDriver.h"
#include "reachabilityCache/CapabilityKey.h"

namespace veranda::reachabilityCache {

// Whether one endpoint is reachable, with what it offers through the driver
// that answered.
struct ReachabilityCheckResult {
  // Each argument fills the member of the same meaning.
  ReachabilityCheckResult(const std::string& endpoint, const std::string& entity,
                          const std::string& adapter, bool reachable, CapabilitySet capabilitySet,
                          applianceDriver::ApplianceDriverType driver)
      : endpointId(endpoint),
        entityId(entity),
        adapterName(adapter),
        isReachable(reachable),
        capabilities(std::move(capabilitySet)),
        driverType(driver) {}

  std::string endpointId;      // matches the result to the requested endpoint
  std::string entityId;        // may be empty (state-change results leave it empty)
  std::string adapterName;     // may be empty
  bool isReachable;            // whether the checker reaches the endpoint now
  CapabilitySet capabilities;  // what the endpoint offers through this driver
  applianceDriver::ApplianceDriverType driverType;  // the driver that answered
};

}  // namespace veranda::reachabilityCache
