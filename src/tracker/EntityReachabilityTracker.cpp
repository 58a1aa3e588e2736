#include "reachabilityCache/EntityReachabilityTracker.h"

#include <cstdint>
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
    : cache_(cache),
      guard_(std::move(guard)),
      listenerId_(nextListenerId()),
      core_(std::make_shared<TrackerCore>(cache.cacheCore, std::move(callback),
                                          unreachableHoldDown)) {
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
  settle();
}

EntityReachabilityTracker::~EntityReachabilityTracker() { close(); }

void EntityReachabilityTracker::updateEndpoints(const std::vector<CachedEndpoint>& endpoints) {
  cache_.updateEndpoints(endpoints);
  settle();
}

bool EntityReachabilityTracker::removeEntity(const std::string& entityId) {
  const bool removed = cache_.removeEntity(entityId);
  settle();
  return removed;
}

void EntityReachabilityTracker::invalidate() {
  cache_.invalidate();
  settle();
}

bool EntityReachabilityTracker::reportedReachable(const std::string& entityId) const {
  return core_->reportedReachable(entityId);
}

std::vector<std::string> EntityReachabilityTracker::reportedReachableEntities() const {
  return core_->reportedReachableEntities();
}

void EntityReachabilityTracker::close() {
  if (!detached_.exchange(true)) {
    cache_.unregisterReachabilityListener(listenerId_);
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
