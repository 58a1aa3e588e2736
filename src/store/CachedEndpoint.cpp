#include "reachabilityCache/CachedEndpoint.h"

#include <utility>

namespace veranda::reachabilityCache {

using applianceDriver::ApplianceDriverType;

CachedEndpoint::CachedEndpoint(const EndpointInfo& info)
    : endpointId(info.endpointId), entityId(info.entityId), adapterName(info.adapterName) {
  driverCapabilities.emplace(ApplianceDriverType::UNKNOWN, info.capabilities);
}

CachedEndpoint::CachedEndpoint(const std::string& endpointId, const std::string& entityId,
                               const std::string& adapterName, ApplianceDriverType driverType,
                               CapabilitySet capabilities)
    : endpointId(endpointId), entityId(entityId), adapterName(adapterName) {
  driverCapabilities.emplace(driverType, std::move(capabilities));
}

bool CachedEndpoint::hasCapabilityFromDriver(const CapabilityKey& key,
                                             ApplianceDriverType driverType) const {
  const auto found = driverCapabilities.find(driverType);
  return found != driverCapabilities.end() && found->second.count(key) != 0;
}

CapabilitySet CachedEndpoint::getAllCapabilities() const {
  CapabilitySet all;
  for (const auto& entry : driverCapabilities) {
    all.insert(entry.second.begin(), entry.second.end());
  }
  return all;
}

EndpointInfo CachedEndpoint::toExternal() const {
  return {endpointId, entityId, adapterName, getAllCapabilities()};
}

}  // namespace veranda::reachabilityCache
