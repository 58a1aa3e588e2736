// ICHRProvider: the provider of the host's connected-home registry (CHR), the
// host's record of every endpoint that the cache is to track.
#pragma once

#include <vector>

#include "reachabilityCache/EndpointInfo.h"

namespace veranda::reachabilityCache {

// Implemented by the host. Called once per periodic cycle on the cache's
// worker thread; the host keeps the provider alive while the cache exists.
// It must not throw: the cache catches nothing, and an exception escapes into
// its worker, where it ends the process (std::terminate) unless the platform's
// executor catches it; then the cycle stops there without a log line and no
// further cycle is scheduled.
class ICHRProvider {
 public:
  virtual ~ICHRProvider() = default;

  // Every endpoint that the cache is to track now, each with at least its
  // endpoint id. Endpoints missing from the list are dropped from the cache;
  // an empty list means "nothing to check now", never "empty the cache".
  virtual std::vector<EndpointInfo> queryEndpoints() = 0;
};

}  // namespace veranda::reachabilityCache
