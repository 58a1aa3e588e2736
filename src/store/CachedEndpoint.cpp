#include "reachabilityCache/CachedEndpoint.h"

#include <cstddef>
#include <utility>

#include "store/DriverCapabilities.h"

namespace veranda::reachabilityCache {

using applianceDriver::ApplianceDriverType;

namespace {

// A record starts with one driver type and seldom gains another. Sized for
// that, the map's bucket array has two slots; left to the default, the first
// insertion sizes it for eleven entries, 104 bytes for every stored endpoint.
constexpr std::size_t DRIVER_TYPE_BUCKETS = 1;

}  // namespace

CachedEndpoint::CachedEndpoint(const EndpointInfo& info)
    : endpointId(info.endpointId),
      entityId(info.entityId),
      adapterName(info.adapterName),
      driverCapabilities(DRIVER_TYPE_BUCKETS) {
  fileCapabilities(driverCapabilities, ApplianceDriverType::NO_DRIVER, info.capabilities);
}

CachedEndpoint::CachedEndpoint(const std::string& endpointId, const std::string& entityId,
                               const std::string& adapterName, ApplianceDriverType driverType,
                               CapabilitySet capabilities)
    : endpointId(endpointId),
      entityId(entityId),
      adapterName(adapterName),
      driverCapabilities(DRIVER_TYPE_BUCKETS) {
  fileCapabilities(driverCapabilities, driverType, std::move(capabilities));
}

bool CachedEndpoint::hasCapabilityFromDriver(const CapabilityKey& key,
                                             ApplianceDriverType driverType) const {
  const auto found = driverCapabilities.find(driverType);
  return found != driverCapabilities.end() && found->second.count(key) != 0;
}

CapabilitySet CachedEndpoint::getAllCapabilities() const {
  // With one driver type (the usual case) the union is that set: copying it
  // hashes each key once, where inserting key by key hashes some twice.
  if (driverCapabilities.size() == 1) {
    return driverCapabilities.begin()->second;
  }
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
