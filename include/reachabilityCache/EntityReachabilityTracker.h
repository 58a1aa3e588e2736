// Tells the host each time an entity's reachability changes, once per change,
// with why and since when: what a user interface shows.
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
#include "reachabilityCache/TrackedEntityState.h"

namespace veranda::reachabilityCache {

class TrackerCore;

// Follows `isEntityReachable` of every entity of one cache and reports each
// change of its answer, including the changes that the cache's listeners do
// not hear: endpoints swept because the provider stopped naming them, the net
// effect of a batch of results whatever their order, and the host's own
// changes. It never reports an answer that did not change.
//
//   auto guard = std::make_shared<ReachabilityCheckerGuard>(checker);
//   config.reachabilityChecker = guard;
//   ReachabilityCache cache(&provider, config);
//   EntityReachabilityTracker tracker(cache, guard, [](const std::string& entityId,
//                                                      bool reachable) { ... });
//
// State: per entity, UNKNOWN until the cache has judged it since the tracker
// started (a check answered for it, or a change touched it), then REACHABLE
// or UNREACHABLE, with the cause of the latest change, since when, and when it
// was last seen reachable (TrackedEntityState). Entities the cache holds when
// the tracker starts are judged at once (cause TRACKING_STARTED). An entity
// the cache drops is reported UNREACHABLE and keeps its state; the tracker
// forgets no entity until it is destroyed.
//
// Callbacks: `onChange` hears (entity id, reachable) each time the entity's
// reported reachability turns from or to REACHABLE (UNKNOWN to UNREACHABLE is
// not such a change); `onStateChange` hears the new state each time the
// reported reachability changes, UNKNOWN to UNREACHABLE included. A new
// lastSeenReachable alone is not reported. For one change, `onChange` runs
// before `onStateChange`.
//
// When changes are seen: the tracker compares its view with the cache at
// settle points: when a batch of results has been applied (the cache's
// completion has returned), right after a periodic cycle's sweep (when the
// cycle starts its check), after each listener notification that is not part
// of a batch (connectivity events), after each change the host makes through
// the tracker, and when a hold-down ends. An entity's answer while a batch
// that names it is being applied is never reported; a change the host makes
// on the cache directly is reported at the next settle point. Changes seen at
// one settle point are reported in entity id order. Entity ids are reported
// without the "orbt1.veyra.endpoint." prefix.
//
// Cost: a settle point judges only the entities that changes touched since
// the previous one (one store query each, with the store's lock held for that
// query alone), so a connectivity event costs the same in a home of ten
// thousand entities as in one of ten. The cache records, while a tracker is
// attached, which entity each change touched.
//
// Hold-down: with a positive `unreachableHoldDown`, "unreachable" is reported
// only once the entity has stayed unreachable that long (as seen at settle
// points), with cause HOLD_DOWN_ELAPSED; coming back within the hold-down
// reports nothing.
//
// Callbacks run on the thread that settled (a driver thread, the cache's
// worker, the host's thread inside the tracker's operations, or the
// tracker's own timer thread), outside every lock of the tracker and the
// cache, one at a time and in the order the changes were seen; a callback may
// call back into the tracker and the cache. A thread that is delivering
// already takes over the changes that another thread saw, so a change may be
// heard shortly after the call that caused it has returned. A callback may
// also run while the constructor has not returned yet: the constructor
// reports the state of every entity the cache holds at that moment.
//
// A callback that throws: the tracker catches the exception, writes an error
// line (tag "ReachabilityCache-EntityReachabilityTracker", event
// "callbackThrew", with the entity and the exception's what()), counts the
// change as reported and goes on with the next one. It never stops
// delivering because of a callback.
//
// Lifetime: the tracker registers a listener with the cache (under an id
// "entityReachabilityTracker_" and a number) and an observer with the guard.
// Close or destroy it before the cache. If the cache is destroyed first, the
// tracker closes itself as the cache's destruction starts (waiting, as
// close() does, for a callback under way on another thread); from then on
// its host changes do nothing (removeEntity() answers false), its view stays
// as it was and close() and the destructor are safe. Calls of the tracker
// must not race with the cache's destruction.
//
// Thread safety: every member may be called from any thread.
class REACHABILITY_CACHE_EXPORT EntityReachabilityTracker {
 public:
  // Hears (entity id, reachable) when the reported reachability turns from or
  // to REACHABLE.
  using ChangeCallback = std::function<void(const std::string& entityId, bool reachable)>;
  // Hears the entity's new state each time its reported reachability changes.
  using StateCallback = std::function<void(const TrackedEntityState& state)>;
  // Called with the tracker's lock held: must not call into the tracker, and
  // must not throw.
  using Clock = std::function<TrackedEntityState::TimePoint()>;

  // What the tracker reports to, and how.
  struct Options {
    ChangeCallback onChange;                           // may be empty
    StateCallback onStateChange;                       // may be empty
    std::chrono::milliseconds unreachableHoldDown{0};  // none when not positive
    // The time of every state; empty: std::chrono::system_clock::now. A host
    // test on VirtualTime passes a clock that reads virtual time, so that
    // every time it sees is exact.
    Clock clock;
  };

  // `guard` must be the cache's checker (ReachabilityCache::Config::
  // reachabilityChecker); null only when the cache has no checker. Otherwise
  // the constructor throws std::invalid_argument, having registered nothing:
  // without the guard the tracker would miss sweeps and batches. `cache` is
  // borrowed.
  EntityReachabilityTracker(ReachabilityCache& cache,
                            std::shared_ptr<ReachabilityCheckerGuard> guard,
                            ChangeCallback callback,
                            std::chrono::milliseconds unreachableHoldDown = {});
  // The same, with callbacks, hold-down and clock from `options`.
  EntityReachabilityTracker(ReachabilityCache& cache,
                            std::shared_ptr<ReachabilityCheckerGuard> guard, Options options);
  // Closes the tracker.
  ~EntityReachabilityTracker();

  EntityReachabilityTracker(const EntityReachabilityTracker&) = delete;
  EntityReachabilityTracker& operator=(const EntityReachabilityTracker&) = delete;

  // ---- The host's changes, made on the cache and reported ----

  // Each is the cache's operation followed by a settle point. After close()
  // they only change the cache; once the cache is destroyed they do nothing.

  // The cache's updateEndpoints(), then a settle point.
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
  // The entity's state (with or without prefix): UNKNOWN, cause NONE, since
  // the tracker's start, for an entity not judged yet.
  TrackedEntityState state(const std::string& entityId) const;
  // The state of every entity judged since the tracker started, sorted by
  // entity id; each the same as state() answers for it.
  std::vector<TrackedEntityState> states() const;

  // Stops following the cache: unregisters the listener and the observer and
  // cancels hold-down timers. After it returns, no callback is running on
  // another thread and none will start; called from inside a callback, it
  // does not wait for itself. The view stays queryable. Idempotent.
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
