// One object that assembles the cache with its guard and, optionally, its
// entity tracker, and takes them down in the one safe order.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "reachabilityCache/CachedEndpoint.h"
#include "reachabilityCache/EntityReachabilityTracker.h"
#include "reachabilityCache/Export.h"
#include "reachabilityCache/ICHRProvider.h"
#include "reachabilityCache/ReachabilityCache.h"
#include "reachabilityCache/ReachabilityCacheHealth.h"
#include "reachabilityCache/ReachabilityCheckerGuard.h"
#include "reachabilityCache/TrackedEntityState.h"

namespace veranda::reachabilityCache {

class ConnectivityTap;

// Owns a ReachabilityCache, the ReachabilityCheckerGuard between it and the
// host's checker, and, when asked for, an EntityReachabilityTracker over both.
//
//   HomeRegistry registry;  // declared before the owner: it must outlive it
//   ReachabilityCacheOwner::Options options;
//   options.tracker.onChange = [](const std::string& entityId, bool reachable) { ... };
//   options.confirmRecovery = true;
//   ReachabilityCacheOwner owner(
//       &registry, {500, std::chrono::seconds(60), true,
//                   std::make_shared<ApplianceDriverReachabilityChecker>()},
//       options);
//   owner.cache().isEntityReachable("living-room-lamp");
//   owner.entityState("living-room-lamp");  // UNKNOWN, REACHABLE or UNREACHABLE, why, since when
//   owner.refresh("living-room-lamp");      // pull-to-refresh
//
// The cache behaves, logs and notifies exactly as one the host builds itself;
// the owner only adds what the host would otherwise have to get right by
// hand.
//
// Teardown: close() stops every callback: the tracker first, then the guard
// (no answer or event reaches the cache any more). The destructor closes,
// then destroys the tracker and the cache, and releases the guard, which
// keeps the host's checker alive for answers that the driver still owes. So
// the owner may be destroyed at any moment, also while a check is under way;
// once the destructor has returned, no listener, tracker callback or provider
// call runs. The provider must outlive the owner; do not destroy the owner
// from inside one of its callbacks.
//
// One cache per driver: every cache subscribes to connectivity events under
// the same first id, so a replacement made while the old cache still lives is
// refused its subscription and hears no event. Destroy the old owner before
// making the new one (reset the pointer first, rather than assigning a new
// object over it); health().hearsConnectivityEvents tells which case a cache
// is in. The owner neither refuses nor warns: such a cache still follows
// devices at its cycles, and the refused subscription is already logged and
// counted as a metric.
//
// Thread safety: every member may be called from any thread between the end
// of construction and the start of destruction.
class REACHABILITY_CACHE_EXPORT ReachabilityCacheOwner {
 public:
  // What the owner adds to the cache; the defaults add nothing.
  struct Options {
    // Entity tracking: an EntityReachabilityTracker follows the cache when
    // this is true or `tracker` names a callback.
    bool trackEntities = false;
    // The tracker's callbacks, hold-down and clock (see
    // EntityReachabilityTracker::Options).
    EntityReachabilityTracker::Options tracker;
    // Recovery confirmation: a connectivity event that says an endpoint is
    // back while its entity is not reachable starts a manual check of that
    // endpoint at once. The event alone cannot make the entity reachable (it
    // names no driver type); with this, the entity turns reachable once the
    // driver answers the check rather than at the next cycle. The check is
    // the cache's manual check, with its "manual_" request id and log lines.
    bool confirmRecovery = false;
  };

  // Builds the guard over `config.reachabilityChecker` (the host's checker)
  // and the cache over the guard; refresh starts as `config` says.
  // `chrProvider` is borrowed, as by the cache.
  ReachabilityCacheOwner(ICHRProvider* chrProvider, const ReachabilityCache::Config& config);
  // The same, then what `options` asks for: the tracker, recovery
  // confirmation.
  ReachabilityCacheOwner(ICHRProvider* chrProvider, const ReachabilityCache::Config& config,
                         Options options);
  // Closes, then destroys the tracker and the cache and releases the guard.
  ~ReachabilityCacheOwner();

  ReachabilityCacheOwner(const ReachabilityCacheOwner&) = delete;
  ReachabilityCacheOwner& operator=(const ReachabilityCacheOwner&) = delete;

  // ---- The parts ----

  // The cache, for every question and for listeners. Valid until destruction.
  ReachabilityCache& cache();
  // The cache, for questions.
  const ReachabilityCache& cache() const;
  // The guard that is the cache's checker, for observers.
  ReachabilityCheckerGuard& guard();
  // The tracker; null without entity tracking (see Options).
  EntityReachabilityTracker* tracker();

  // ---- The host's changes ----

  // The cache's updateEndpoints(); with a tracker, through it, so that it
  // reports the effect at once. So are the next two.
  void updateEndpoints(const std::vector<CachedEndpoint>& endpoints);
  // The cache's removeEntity(): false when the entity was not cached.
  bool removeEntity(const std::string& entityId);
  // The cache's invalidate().
  void invalidate();

  // ---- Refresh now ----

  // Starts a manual check of every endpoint the cache holds for the entity
  // (with or without the id prefix), on the cache's worker; returns at once.
  // Returns the number of endpoints to be checked: 0 for an entity the cache
  // does not hold, and after close(). Results arrive as those of any check:
  // listeners and the tracker hear what changed.
  std::size_t refresh(const std::string& entityId);
  // The same for every endpoint the cache holds, in one check. Endpoints
  // that the provider names but the cache has never held come with the next
  // cycle.
  std::size_t refreshAll();

  // ---- Entity state ----

  // The tracker's state of the entity (with or without the id prefix).
  // Without entity tracking every entity is UNKNOWN, with cause NONE and no
  // time.
  TrackedEntityState entityState(const std::string& entityId) const;
  // The tracker's state of every entity it has judged, sorted by entity id;
  // empty without entity tracking.
  std::vector<TrackedEntityState> entityStates() const;

  // ---- Health ----

  // The cache's health (see ReachabilityCacheHealth).
  ReachabilityCacheHealth health() const;

  // Stops every callback: recovery confirmation, the tracker, then the guard.
  // After it returns, no answer or event reaches the cache, the tracker calls
  // back no more, and refresh() starts nothing; the cache still answers
  // questions. Called from inside a callback, it does not wait for that
  // callback. Idempotent.
  void close();

 private:
  std::shared_ptr<ConnectivityTap> tap_;  // null without recovery confirmation
  std::shared_ptr<ReachabilityCheckerGuard> guard_;
  std::unique_ptr<ReachabilityCache> cache_;
  std::unique_ptr<EntityReachabilityTracker> tracker_;
  std::atomic<bool> closed_{false};
};

}  // namespace veranda::reachabilityCache
