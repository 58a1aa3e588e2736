// The stored form of an endpoint: its capabilities kept per driver type.
#pragma once

#include <string>
#include <unordered_map>

#include "applianceDriver/ApplianceDriver.h"
#include "reachabilityCache/CapabilityKey.h"
#include "reachabilityCache/EndpointInfo.h"
#include "reachabilityCache/Export.h"

namespace veranda::reachabilityCache {

// Capabilities by the driver type that reported them.
using DriverCapabilities = std::unordered_map<applianceDriver::ApplianceDriverType, CapabilitySet,
                                              applianceDriver::ApplianceDriverTypeHash>;

// An endpoint as the store keeps it, with what each driver type reported.
struct REACHABILITY_CACHE_EXPORT CachedEndpoint {
  // Files `info.capabilities` (possibly empty) under NO_DRIVER, the type of
  // records that no driver stands behind. Explicit: such a record never makes
  // its entity reachable, which a silent conversion would hide.
  explicit CachedEndpoint(const EndpointInfo& info);

  // Files `capabilities` under `driverType`.
  CachedEndpoint(const std::string& endpointId, const std::string& entityId,
                 const std::string& adapterName, applianceDriver::ApplianceDriverType driverType,
                 CapabilitySet capabilities);

  // True when `driverType` reported `key` for this endpoint.
  bool hasCapabilityFromDriver(const CapabilityKey& key,
                               applianceDriver::ApplianceDriverType driverType) const;

  // The union of the capabilities of every driver type.
  CapabilitySet getAllCapabilities() const;

  // This record in external form; which driver reported what is lost.
  EndpointInfo toExternal() const;

  std::string endpointId;   // the endpoint's id in the appliance driver
  std::string entityId;     // once stored, the normalised entity id
  std::string adapterName;  // the adapter that reaches it
  // A driver type present with an empty set differs from an absent one: only
  // presence of NATIVE or CONNECTED (0, 1) makes the endpoint reachable.
  DriverCapabilities driverCapabilities;
};

}  // namespace veranda::reachabilityCache
