// Tells the host each time an entity's reachability changes, once per change:
// what a user interface shows.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "reachabilityCache/CachedEndpoint.h"
#include "reachabilityCache/Export.h"
#include "reachabilityCache/ReachabilityCache.h"
#include "reachabilityCache/ReachabilityCheckerGuard.h"

namespace veranda::reachabilityCache {

class TrackerCore;

// Follows `isEntityReachable` of every entity of one cache and calls its
// callback with (entity id, reachable) each time the answer changes, including
// the changes that the cache's listeners do not hear: endpoints swept because
// the provider stopped naming them, the net effect of a batch of results
// whatever their order, and the host's own changes made through the tracker.
// It never calls back when the answer did not change.
//
//   auto guard = std::make_shared<ReachabilityCheckerGuard>(checker);
//   config.reachabilityChecker = guard;
//   ReachabilityCache cache(&provider, config);
//   EntityReachabilityTracker tracker(cache, guard, [](const std::string& entityId,
//                                                      bool reachable) { ... });
//
// When changes are seen: the tracker compares its view with the cache at
// settle points: when a batch of results has been applied (the cache's
// completion has returned), right after a periodic cycle's sweep (when the
// cycle starts its check), after each listener notification that is not part
// of a batch (connectivity events), and after each change the host makes
// through the tracker. An entity's answer while a batch that names it is being
// applied is never reported; a change the host makes on the cache directly is
// reported at the next settle point. Entity ids are reported without the
// "orbt1.veyra.endpoint." prefix.
//
// Hold-down: with a positive `unreachableHoldDown`, "unreachable" is reported
// only once the entity has stayed unreachable that long (as seen at settle
// points); coming back within the hold-down reports nothing.
//
// Callbacks run on the thread that settled (a driver thread, the cache's
// worker, the host's thread inside the tracker's operations, or the
// tracker's own timer thread), outside every lock of the tracker and the
// cache, one at a time and in the order the changes were seen; a callback may
// call back into the tracker and the cache. A thread that is delivering
// already takes over the changes that another thread saw, so a change may be
// heard shortly after the call that caused it has returned. A callback may
// also run while the constructor has not returned yet: the constructor
// reports every entity reachable at that moment.
//
// Lifetime: the tracker registers a listener with the cache (under an id
// "entityReachabilityTracker_" and a number) and an observer with the guard,
// which must be the cache's checker. Close or destroy the tracker before the
// cache is destroyed.
//
// Thread safety: every member may be called from any thread.
class REACHABILITY_CACHE_EXPORT EntityReachabilityTracker {
 public:
  // Told each change of an entity's reachability.
  using ChangeCallback = std::function<void(const std::string& entityId, bool reachable)>;

  // `callback` must be callable. `cache` is borrowed.
  EntityReachabilityTracker(ReachabilityCache& cache,
                            std::shared_ptr<ReachabilityCheckerGuard> guard,
                            ChangeCallback callback,
                            std::chrono::milliseconds unreachableHoldDown = {});
  // Closes the tracker.
  ~EntityReachabilityTracker();

  EntityReachabilityTracker(const EntityReachabilityTracker&) = delete;
  EntityReachabilityTracker& operator=(const EntityReachabilityTracker&) = delete;

  // ---- The host's changes, made on the cache and reported ----

  // The cache's updateEndpoints(), removeEntity() and invalidate(), followed
  // by a settle point. After close() they only change the cache.
  void updateEndpoints(const std::vector<CachedEndpoint>& endpoints);
  // The cache's removeEntity(), then a settle point.
  bool removeEntity(const std::string& entityId);
  // The cache's invalidate(), then a settle point.
  void invalidate();

  // ---- The tracker's view ----

  // Whether the entity was last reported reachable (with or without prefix).
  bool reportedReachable(const std::string& entityId) const;
  // Every entity last reported reachable, sorted.
  std::vector<std::string> reportedReachableEntities() const;

  // Stops following the cache: unregisters the listener and the observer and
  // cancels hold-down timers. After it returns, no callback is running on
  // another thread and none will start; called from inside a callback, it
  // does not wait for itself. Idempotent.
  void close();

 private:
  void settle();

  ReachabilityCache& cache_;
  const std::shared_ptr<ReachabilityCheckerGuard> guard_;
  const std::string listenerId_;
  const std::shared_ptr<TrackerCore> core_;
  std::atomic<bool> detached_{false};
};

}  // namespace veranda::reachabilityCache
