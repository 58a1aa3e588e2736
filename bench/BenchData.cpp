#include "BenchData.h"

#include <array>
#include <cinttypes>
#include <cstdio>
#include <random>

namespace veranda::reachabilityCache::bench {
namespace {

// The adapters endpoints are spread over (all supported by the checker).
constexpr std::array<const char*, 4> ADAPTERS = {"PROT_ZIGBEE-ADAPTER", "PROT_WIFI-ADAPTER",
                                                 "PROT_CHIP-ADAPTER", "PROT_BLE_MESH-ADAPTER"};

// A 64-bit mix (splitmix64's finaliser) so that neighbouring seeds differ
// in every digit.
uint64_t mix(uint64_t value) {
  value += 0x9e3779b97f4a7c15ULL;
  value = (value ^ (value >> 30)) * 0xbf58476d1ce4e5b9ULL;
  value = (value ^ (value >> 27)) * 0x94d049bb133111ebULL;
  return value ^ (value >> 31);
}

std::string endpointIdFor(std::size_t entity, std::size_t endpoint) {
  return uuidFor((static_cast<uint64_t>(entity) << 2 | endpoint) ^ 0x5eedULL);
}

}  // namespace

const char* const ENTITY_ID_PREFIX = "orbt1.veyra.endpoint.";

std::string uuidFor(uint64_t seed) {
  const uint64_t high = mix(seed);
  const uint64_t low = mix(high ^ seed);
  char text[40];
  std::snprintf(text, sizeof(text),
                "%08" PRIx64 "-%04" PRIx64 "-4%03" PRIx64 "-8%03" PRIx64 "-%012" PRIx64, high >> 32,
                (high >> 16) & 0xffff, high & 0xfff, low >> 52, low & uint64_t{0xffffffffffff});
  return text;
}

std::string entityIdFor(std::size_t index) { return uuidFor(index); }

std::string hostEntityIdFor(std::size_t index) { return ENTITY_ID_PREFIX + entityIdFor(index); }

std::size_t endpointCountFor(std::size_t index) { return 1 + mix(index ^ 0xe9dULL) % 3; }

const CapabilitySet& standardCapabilities() {
  static const CapabilitySet CAPABILITIES = {
      {"Veyra.PowerController", "powerState"},
      {"Veyra.BrightnessController", "brightness"},
      {"Veyra.EndpointHealth", "connectivity"},
  };
  return CAPABILITIES;
}

const CapabilityKey& queriedCapability() {
  static const CapabilityKey KEY{"Veyra.BrightnessController", "brightness"};
  return KEY;
}

std::vector<EndpointInfo> endpointsOfEntities(std::size_t entityCount) {
  std::vector<EndpointInfo> endpoints;
  endpoints.reserve(entityCount * 2);
  for (std::size_t entity = 0; entity < entityCount; ++entity) {
    const std::string entityId = hostEntityIdFor(entity);
    const char* adapter = ADAPTERS[entity % ADAPTERS.size()];
    for (std::size_t endpoint = 0; endpoint < endpointCountFor(entity); ++endpoint) {
      endpoints.emplace_back(endpointIdFor(entity, endpoint), entityId, adapter,
                             standardCapabilities());
    }
  }
  return endpoints;
}

std::vector<EndpointInfo> firstEndpoints(std::size_t endpointCount) {
  // Entities average two endpoints; ask for enough of them and cut.
  std::vector<EndpointInfo> endpoints = endpointsOfEntities(endpointCount / 2 + 8);
  while (endpoints.size() < endpointCount) {
    endpoints = endpointsOfEntities(endpoints.size() + endpointCount);
  }
  endpoints.erase(endpoints.begin() + static_cast<std::ptrdiff_t>(endpointCount), endpoints.end());
  return endpoints;
}

std::vector<applianceDriver::DiscoveredDevice> devicesFor(
    const std::vector<EndpointInfo>& endpoints, bool reachable) {
  std::vector<applianceDriver::DiscoveredDevice> devices;
  devices.reserve(endpoints.size());
  for (const EndpointInfo& endpoint : endpoints) {
    applianceDriver::DiscoveredDevice& device = devices.emplace_back();
    device.endpointId = endpoint.endpointId;
    device.entityId = endpoint.entityId;
    device.adapterName = endpoint.adapterName;
    device.driverType = applianceDriver::ApplianceDriverType::NATIVE;
    for (const CapabilityKey& key : endpoint.capabilities) {
      device.capabilities.emplace(key.capability, key.qualifier);
    }
    device.isReachable = reachable;
  }
  return devices;
}

EndpointInfo staleEndpointFor(uint64_t seed) {
  const std::string id = uuidFor(seed ^ 0x57a1eULL);
  return {id, "stale-" + id, "PROT_WIFI-ADAPTER", standardCapabilities()};
}

CachedEndpoint asCached(const EndpointInfo& endpoint,
                        applianceDriver::ApplianceDriverType driverType) {
  return {endpoint.endpointId, endpoint.entityId, endpoint.adapterName, driverType,
          endpoint.capabilities};
}

std::vector<std::string> queryIds(std::size_t entityCount, std::size_t count) {
  std::mt19937_64 random(42);
  std::uniform_int_distribution<std::size_t> pick(0, entityCount - 1);
  std::vector<std::string> ids;
  ids.reserve(count);
  for (std::size_t i = 0; i < count; ++i) {
    ids.push_back(hostEntityIdFor(pick(random)));
  }
  return ids;
}

std::size_t payloadCharacters(const EndpointInfo& endpoint) {
  std::size_t entityLength = endpoint.entityId.size();
  if (endpoint.entityId.rfind(ENTITY_ID_PREFIX, 0) == 0) {
    entityLength -= std::char_traits<char>::length(ENTITY_ID_PREFIX);
  }
  std::size_t characters = endpoint.endpointId.size() + entityLength + endpoint.adapterName.size();
  for (const CapabilityKey& key : endpoint.capabilities) {
    characters += key.capability.size() + key.qualifier.size();
  }
  return characters;
}

}  // namespace veranda::reachabilityCache::bench
