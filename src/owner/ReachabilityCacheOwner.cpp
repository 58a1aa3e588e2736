#include "reachabilityCache/ReachabilityCacheOwner.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "owner/ConnectivityTap.h"
#include "store/CacheCore.h"
#include "updater/ReachabilityUpdater.h"

namespace veranda::reachabilityCache {
namespace {

// Starts a manual check of the endpoint that `event` says is back, when its
// entity is not reachable: only a check can confirm it.
void confirmRecovery(const CacheCore& store, ReachabilityUpdater& updater,
                     const ReachabilityCheckResult& event) {
  if (!event.isReachable || event.endpointId.empty()) {
    return;
  }
  // The entity as the cache applies the event: the event's own, else the
  // one the endpoint is stored under.
  const std::string entityId =
      event.entityId.empty() ? store.entityIdOfEndpoint(event.endpointId) : event.entityId;
  if (entityId.empty() || store.isEntityReachableUnlogged(entityId)) {
    return;
  }
  for (EndpointInfo& endpoint : store.getEndpointsForEntity(entityId)) {
    if (endpoint.endpointId == event.endpointId) {
      updater.triggerUpdate({std::move(endpoint)});
      return;
    }
  }
}

}  // namespace

ReachabilityCacheOwner::ReachabilityCacheOwner(ICHRProvider* chrProvider,
                                               const ReachabilityCache::Config& config)
    : ReachabilityCacheOwner(chrProvider, config, Options()) {}

ReachabilityCacheOwner::ReachabilityCacheOwner(ICHRProvider* chrProvider,
                                               const ReachabilityCache::Config& config,
                                               Options options) {
  std::shared_ptr<IReachabilityChecker> checker = config.reachabilityChecker;
  if (options.confirmRecovery && checker != nullptr) {
    tap_ = std::make_shared<ConnectivityTap>(std::move(checker));
    checker = tap_;
  }
  guard_ = std::make_shared<ReachabilityCheckerGuard>(std::move(checker));
  ReachabilityCache::Config guarded = config;
  guarded.reachabilityChecker = guard_;
  cache_ = std::make_unique<ReachabilityCache>(chrProvider, guarded);
  if (options.trackEntities || options.tracker.onChange || options.tracker.onStateChange) {
    tracker_ =
        std::make_unique<EntityReachabilityTracker>(*cache_, guard_, std::move(options.tracker));
  }
  if (tap_ != nullptr) {
    // Both outlive the tap's handler: close() detaches it before they go.
    tap_->attach([store = cache_->cacheCore.get(),
                  updater = cache_->updater.get()](const ReachabilityCheckResult& event) {
      confirmRecovery(*store, *updater, event);
    });
  }
}

ReachabilityCacheOwner::~ReachabilityCacheOwner() {
  close();
  tracker_.reset();
  cache_.reset();
  // The guard and the tap go when the driver's last late answer lets go of
  // them.
  guard_.reset();
  tap_.reset();
}

ReachabilityCache& ReachabilityCacheOwner::cache() { return *cache_; }

const ReachabilityCache& ReachabilityCacheOwner::cache() const { return *cache_; }

ReachabilityCheckerGuard& ReachabilityCacheOwner::guard() { return *guard_; }

EntityReachabilityTracker* ReachabilityCacheOwner::tracker() { return tracker_.get(); }

void ReachabilityCacheOwner::updateEndpoints(const std::vector<CachedEndpoint>& endpoints) {
  if (tracker_ != nullptr) {
    tracker_->updateEndpoints(endpoints);
  } else {
    cache_->updateEndpoints(endpoints);
  }
}

bool ReachabilityCacheOwner::removeEntity(const std::string& entityId) {
  return tracker_ != nullptr ? tracker_->removeEntity(entityId) : cache_->removeEntity(entityId);
}

void ReachabilityCacheOwner::invalidate() {
  if (tracker_ != nullptr) {
    tracker_->invalidate();
  } else {
    cache_->invalidate();
  }
}

std::size_t ReachabilityCacheOwner::refresh(const std::string& entityId) {
  if (closed_) {
    return 0;
  }
  const std::vector<EndpointInfo> endpoints = cache_->cacheCore->getEndpointsForEntity(entityId);
  if (!endpoints.empty()) {
    cache_->updater->triggerUpdate(endpoints);
  }
  return endpoints.size();
}

std::size_t ReachabilityCacheOwner::refreshAll() {
  if (closed_) {
    return 0;
  }
  const CacheCore& store = *cache_->cacheCore;
  std::vector<std::string> entityIds;
  for (const auto& entity : store.getReachableEndpointsMap()) {
    entityIds.push_back(entity.first);
  }
  // One order for one cache content: the check's log line lists them so.
  std::sort(entityIds.begin(), entityIds.end());
  std::vector<EndpointInfo> endpoints;
  for (const std::string& entityId : entityIds) {
    std::vector<EndpointInfo> ofEntity = store.getEndpointsForEntity(entityId);
    std::move(ofEntity.begin(), ofEntity.end(), std::back_inserter(endpoints));
  }
  if (!endpoints.empty()) {
    cache_->updater->triggerUpdate(endpoints);
  }
  return endpoints.size();
}

TrackedEntityState ReachabilityCacheOwner::entityState(const std::string& entityId) const {
  if (tracker_ != nullptr) {
    return tracker_->state(entityId);
  }
  TrackedEntityState unknown;
  unknown.entityId = CacheCore::normalizeEntityId(entityId);
  return unknown;
}

std::vector<TrackedEntityState> ReachabilityCacheOwner::entityStates() const {
  return tracker_ != nullptr ? tracker_->states() : std::vector<TrackedEntityState>();
}

ReachabilityCacheHealth ReachabilityCacheOwner::health() const { return cache_->health(); }

void ReachabilityCacheOwner::close() {
  closed_ = true;
  if (tap_ != nullptr) {
    tap_->detach();
  }
  if (tracker_ != nullptr) {
    tracker_->close();
  }
  guard_->close();
}

}  // namespace veranda::reachabilityCache
