// A checker in front of the host's checker that hears each connectivity
// event it passes on to the cache.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "reachabilityCache/EndpointInfo.h"
#include "reachabilityCache/IReachabilityChecker.h"
#include "reachabilityCache/ReachabilityCheckResult.h"
#include "sync/Mutex.h"

namespace veranda::reachabilityCache {

// Forwards every call to the checker it wraps unchanged. Each connectivity
// event is passed on first and then handed to the handler, if one is
// attached, on the checker's thread.
//
// Thread safety: every member may be called from any thread. The handler
// runs under the tap's lock, so that detach() can wait for it; it must not
// call attach() or detach().
class ConnectivityTap : public IReachabilityChecker {
 public:
  using EventHandler = std::function<void(const ReachabilityCheckResult&)>;

  // `checker` must not be null.
  explicit ConnectivityTap(std::shared_ptr<IReachabilityChecker> checker);

  ConnectivityTap(const ConnectivityTap&) = delete;
  ConnectivityTap& operator=(const ConnectivityTap&) = delete;

  // Hands every later event to `handler`.
  void attach(EventHandler handler);
  // After it returns, no handler call is running and none starts.
  void detach();

  bool checkReachability(const std::vector<EndpointInfo>& endpoints, const std::string& requestId,
                         ResultsCallback callback) override;
  bool registerReachabilityUpdateCallback(const std::string& callbackId,
                                          UpdateCallback callback) override;
  bool unregisterReachabilityUpdateCallback(const std::string& callbackId) override;

 private:
  // Held by the wrapped callbacks too: the checker may keep them after the
  // tap is gone.
  struct Handler {
    Mutex mutex;
    EventHandler handle RC_GUARDED_BY(mutex);
  };

  const std::shared_ptr<Handler> handler_;
  const std::shared_ptr<IReachabilityChecker> checker_;
};

}  // namespace veranda::reachabilityCache
