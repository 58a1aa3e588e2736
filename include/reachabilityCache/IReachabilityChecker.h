// The interface through which the cache checks reachability.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "reachabilityCache/EndpointInfo.h"
#include "reachabilityCache/ReachabilityCheckResult.h"

namespace veranda::reachabilityCache {

// Implementations may run callbacks on threads of their own, concurrently
// with each other and with calls into the checker; every operation may be
// called from any thread.
class IReachabilityChecker {
 public:
  // Receives the results of one batch.
  using ResultsCallback = std::function<void(const std::vector<ReachabilityCheckResult>&)>;
  // Receives one connectivity change.
  using UpdateCallback = std::function<void(const ReachabilityCheckResult&)>;

  virtual ~IReachabilityChecker() = default;

  // Starts one batch check. True when started (or when there was nothing to
  // check and `callback` has already run with no results); `callback` then
  // receives one result per distinct requested endpoint id, once. False when
  // the check could not start; `callback` is then never called.
  virtual bool checkReachability(const std::vector<EndpointInfo>& endpoints,
                                 const std::string& requestId, ResultsCallback callback) = 0;

  // Subscribes `callback` to connectivity changes of every endpoint, one
  // result per change. False for an empty id or callback, an id already
  // registered, or a refused subscription.
  virtual bool registerReachabilityUpdateCallback(const std::string& callbackId,
                                                  UpdateCallback callback) = 0;

  // Cancels the subscription. After true, no call of its callback is running
  // on another thread and none will start, not even for a change reported
  // before the call: what the callback captures may then be destroyed. Called
  // from inside that callback it returns without waiting for it, and the
  // callback finishes after the call. False for an empty or unknown id, or a
  // refused cancellation (the id then stays registered and its callback may
  // still be called).
  virtual bool unregisterReachabilityUpdateCallback(const std::string& callbackId) = 0;
};

}  // namespace veranda::reachabilityCache
