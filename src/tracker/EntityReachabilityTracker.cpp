#include "reachabilityCache/EntityReachabilityTracker.h"

#include <cstdint>
#include <stdexcept>
#include <utility>

#include "tracker/TrackerCore.h"

namespace veranda::reachabilityCache {
namespace {

std::string nextListenerId() {
  static std::atomic<uint64_t> counter{0};
  return "entityReachabilityTracker_" + std::to_string(counter.fetch_add(1));
}

}  // namespace

EntityReachabilityTracker::EntityReachabilityTracker(
    ReachabilityCache& cache, std::shared_ptr<ReachabilityCheckerGuard> guard,
    ChangeCallback callback, std::chrono::milliseconds unreachableHoldDown)
    : EntityReachabilityTracker(
          cache, std::move(guard),
          Options{std::move(callback), nullptr, unreachableHoldDown, nullptr}) {}

EntityReachabilityTracker::EntityReachabilityTracker(
    ReachabilityCache& cache, std::shared_ptr<ReachabilityCheckerGuard> guard, Options options)
    : cache_(cache),
      guard_(std::move(guard)),
      listenerId_(nextListenerId()),
      core_(std::make_shared<TrackerCore>(cache.cacheCore, std::move(options))) {
  const std::shared_ptr<IReachabilityChecker>& checker = cache_.config.reachabilityChecker;
  if (guard_ == nullptr && checker != nullptr) {
    throw std::invalid_argument(
        "EntityReachabilityTracker: the guard is null, but the cache has a checker; pass the "
        "ReachabilityCheckerGuard that is the cache's Config::reachabilityChecker");
  }
  if (guard_ != checker) {
    throw std::invalid_argument(
        "EntityReachabilityTracker: the guard is not the cache's checker; pass the "
        "ReachabilityCheckerGuard that is the cache's Config::reachabilityChecker");
  }
  core_->subscribe();
  cache_.registerReachabilityListener(
      listenerId_, [core = std::weak_ptr<TrackerCore>(core_)](const std::string& /*endpointId*/,
                                                              const std::string& entityId, bool) {
        if (const auto alive = core.lock()) {
          alive->onNotification(entityId);
        }
      });
  if (guard_ != nullptr) {
    guard_->addObserver(core_);
  }
  // A callback may destroy the tracker; the core outlives the delivery.
  const std::shared_ptr<TrackerCore> core = core_;
  core->judgeEverything();
}

EntityReachabilityTracker::~EntityReachabilityTracker() { close(); }

void EntityReachabilityTracker::updateEndpoints(const std::vector<CachedEndpoint>& endpoints) {
  if (core_->isCacheDestroyed()) {
    return;
  }
  cache_.updateEndpoints(endpoints);
  settle();
}

bool EntityReachabilityTracker::removeEntity(const std::string& entityId) {
  if (core_->isCacheDestroyed()) {
    return false;
  }
  const bool removed = cache_.removeEntity(entityId);
  settle();
  return removed;
}

void EntityReachabilityTracker::invalidate() {
  if (core_->isCacheDestroyed()) {
    return;
  }
  cache_.invalidate();
  settle();
}

bool EntityReachabilityTracker::reportedReachable(const std::string& entityId) const {
  return core_->reportedReachable(entityId);
}

std::vector<std::string> EntityReachabilityTracker::reportedReachableEntities() const {
  return core_->reportedReachableEntities();
}

TrackedEntityState EntityReachabilityTracker::state(const std::string& entityId) const {
  return core_->state(entityId);
}

std::vector<TrackedEntityState> EntityReachabilityTracker::states() const {
  return core_->states();
}

void EntityReachabilityTracker::close() {
  if (!detached_.exchange(true)) {
    // Once the cache is destroyed, the tracker no longer touches it.
    if (!core_->isCacheDestroyed()) {
      cache_.unregisterReachabilityListener(listenerId_);
    }
    if (guard_ != nullptr) {
      guard_->removeObserver(core_.get());
    }
  }
  core_->close();
}

void EntityReachabilityTracker::settle() {
  // A callback may destroy the tracker; the core outlives the delivery.
  const std::shared_ptr<TrackerCore> core = core_;
  core->settle();
}

}  // namespace veranda::reachabilityCache
