// Deterministic home data shared by the benchmarks: entities with one to three
// endpoints each, every endpoint with the same three capabilities.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "applianceDriver/ApplianceDriver.h"
#include "reachabilityCache/CachedEndpoint.h"
#include "reachabilityCache/CapabilityKey.h"
#include "reachabilityCache/EndpointInfo.h"

namespace veranda::reachabilityCache::bench {

// The prefix hosts put in front of entity ids; the store strips it.
extern const char* const ENTITY_ID_PREFIX;

// A 36-character id in the shape of a random UUID, a pure function of `seed`.
std::string uuidFor(uint64_t seed);

// Entity `index`'s normalised id.
std::string entityIdFor(std::size_t index);
// Entity `index`'s id as a host passes it, with the prefix.
std::string hostEntityIdFor(std::size_t index);
// How many endpoints (1 to 3) entity `index` has.
std::size_t endpointCountFor(std::size_t index);

// The three capabilities every endpoint has.
const CapabilitySet& standardCapabilities();
// One of standardCapabilities(), for capability queries.
const CapabilityKey& queriedCapability();

// Every endpoint of the first `entityCount` entities, entity by entity, with
// host-style (prefixed) entity ids.
std::vector<EndpointInfo> endpointsOfEntities(std::size_t entityCount);
// The first `endpointCount` endpoints of that same sequence.
std::vector<EndpointInfo> firstEndpoints(std::size_t endpointCount);

// The driver's answer for `endpoints`: one device per endpoint, reported by
// NATIVE with the endpoint's capabilities, all reachable or all unreachable.
std::vector<applianceDriver::DiscoveredDevice> devicesFor(
    const std::vector<EndpointInfo>& endpoints, bool reachable);

// An endpoint of an entity of its own that no provider names, for a cycle to
// sweep; a pure function of `seed`.
EndpointInfo staleEndpointFor(uint64_t seed);

// `endpoint` as a record reported by `driverType`.
CachedEndpoint asCached(const EndpointInfo& endpoint,
                        applianceDriver::ApplianceDriverType driverType);

// `count` host-style entity ids drawn uniformly from the first `entityCount`
// entities, with a fixed seed.
std::vector<std::string> queryIds(std::size_t entityCount, std::size_t count);

// Characters of the strings one endpoint stores: endpoint, entity (normalised)
// and adapter ids and both fields of every capability.
std::size_t payloadCharacters(const EndpointInfo& endpoint);

}  // namespace veranda::reachabilityCache::bench
