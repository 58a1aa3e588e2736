// The function a host registers to hear of reachability changes.
#pragma once

#include <functional>
#include <string>

namespace veranda::reachabilityCache {

// Told of a change of an endpoint's reachability: (endpoint id, entity id as
// the result carried it, new state). See
// ReachabilityCache::registerReachabilityListener() for when and on which
// thread it runs.
using ReachabilityListener = std::function<void(const std::string& endpointId,
                                                const std::string& entityId, bool isReachable)>;

}  // namespace veranda::reachabilityCache
