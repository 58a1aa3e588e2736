// A checker that stands between the cache and the host's checker so that the
// host can tear the cache down while checks are still under way.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "reachabilityCache/EndpointInfo.h"
#include "reachabilityCache/Export.h"
#include "reachabilityCache/IReachabilityChecker.h"
#include "reachabilityCache/ReachabilityCheckResult.h"

namespace veranda::reachabilityCache {

// Forwards every call to the checker it wraps, and wraps every callback that
// the cache hands in, so that close() can cut the cache off from answers that
// arrive late.
//
//   auto guard = std::make_shared<ReachabilityCheckerGuard>(
//       std::make_shared<ApplianceDriverReachabilityChecker>());
//   config.reachabilityChecker = guard;
//   auto cache = std::make_unique<ReachabilityCache>(&provider, config);
//   ...
//   guard->close();  // no callback of the cache runs after this
//   cache.reset();   // then the guard, the checker and the provider may go too
//
// One guard serves one cache: the first cache made with the guard as its
// checker. A second cache made with it, while the first lives or after, and a
// cache made with a closed guard, would hear nothing once the guard is closed;
// instead the guard refuses it: std::logic_error leaves the cache's
// constructor before the cache has logged or started anything, with a message
// that says so. (A guard wrapped in another checker is not recognised.)
//
// While open, the guard changes nothing: each call reaches the wrapped checker
// with the same endpoints and ids and its result comes back unchanged; each
// completion and event reaches the cache with the same results, on the
// checker's thread.
//
// Lifetime: a check that the wrapped checker has started holds that checker
// (and nothing of the cache) until the checker lets go of its completion,
// that is until the answer has arrived: a late answer from the driver still
// finds the checker it was started on, although the host dropped every
// reference. Destroying the guard closes it.
//
// Thread safety: every member may be called from any thread.
class REACHABILITY_CACHE_EXPORT ReachabilityCheckerGuard : public IReachabilityChecker {
 public:
  // Hears what passes through the guard while it is open. Called on the
  // thread the event happens on, outside the guard's lock; close() waits for
  // observer calls under way as for callbacks of the cache.
  class Observer {
   public:
    virtual ~Observer() = default;
    // The cache is about to start a check. In a periodic cycle this comes
    // right after the cycle has dropped the endpoints that the provider no
    // longer names.
    virtual void onCheckStarting() = 0;
    // A check's results are about to be handed to the cache.
    virtual void onResultsArriving(const std::vector<ReachabilityCheckResult>& results) = 0;
    // The cache has applied them (its completion has returned), or close()
    // dropped them on their way. Every onResultsArriving() is followed by
    // one onResultsApplied() for the same results, also across close().
    virtual void onResultsApplied(const std::vector<ReachabilityCheckResult>& results) = 0;
  };

  // With a null `checker` nothing starts: checks and registrations answer
  // false.
  explicit ReachabilityCheckerGuard(std::shared_ptr<IReachabilityChecker> checker);
  ~ReachabilityCheckerGuard() override;

  ReachabilityCheckerGuard(const ReachabilityCheckerGuard&) = delete;
  ReachabilityCheckerGuard& operator=(const ReachabilityCheckerGuard&) = delete;

  // Cuts the cache off: every completion and event that arrives later is
  // dropped without reaching the cache, and observers hear nothing more
  // (results they already heard arriving still end with onResultsApplied()).
  // After it returns, no callback of the cache is running on another thread
  // and none will start, and no check or subscription reaches the wrapped
  // checker any more: one being handed on when close() begins is either
  // dropped or waited for. Called from inside a callback or an observer, it
  // does not wait for itself, nor for callbacks on other threads that are
  // themselves inside close(), so that callbacks closing the guard at the same
  // time never wait for one another. Call it before destroying the cache, and
  // not while holding a lock that a listener of the cache takes. Idempotent.
  //
  // After close(), checkReachability() starts nothing and answers true (the
  // check counts as started, so a periodic cycle that still runs before the
  // cache is destroyed records no failure); its callback is never called. The
  // same holds for a check whose onCheckStarting() observer closes the guard.
  // registerReachabilityUpdateCallback() answers false and subscribes
  // nothing. unregisterReachabilityUpdateCallback() is still forwarded, so
  // that the cache's teardown cancels its subscription.
  void close();
  // Whether close() has been called (it may still be waiting).
  bool isClosed() const;

  // Adds an observer; it hears the events from the next one on. Adding the
  // same observer twice makes it hear everything twice.
  void addObserver(std::shared_ptr<Observer> observer);
  // Removes one registration of the observer. Like unregistering a listener,
  // it does not wait for a call under way on another thread.
  void removeObserver(const Observer* observer);

  // ---- IReachabilityChecker ----

  // Hands the check on to the wrapped checker, unless closed (see close()).
  bool checkReachability(const std::vector<EndpointInfo>& endpoints, const std::string& requestId,
                         ResultsCallback callback) override;
  bool registerReachabilityUpdateCallback(const std::string& callbackId,
                                          UpdateCallback callback) override;
  bool unregisterReachabilityUpdateCallback(const std::string& callbackId) override;

 private:
  friend class ReachabilityCache;

  // Called by a cache's constructor when the guard is its checker: throws
  // std::logic_error when the guard serves another cache already or is
  // closed (see above).
  REACHABILITY_CACHE_NO_EXPORT void claimForCache();

  class Shared;
  // What the wrapped callbacks need after the guard is gone: the gate and the
  // observers.
  std::shared_ptr<Shared> shared_;
  std::shared_ptr<IReachabilityChecker> checker_;
};

}  // namespace veranda::reachabilityCache
