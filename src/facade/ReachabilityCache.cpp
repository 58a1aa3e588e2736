#include "reachabilityCache/ReachabilityCache.h"

#include <limits>
#include <utility>

#include "diagnostics/ComponentLog.h"
#include "diagnostics/LogBuilder.h"
#include "diagnostics/LogSchema.h"
#include "reachabilityCache/ReachabilityCheckerGuard.h"
#include "store/CacheCore.h"
#include "updater/ReachabilityUpdater.h"

namespace veranda::reachabilityCache {

using namespace logSchema;
namespace {

using commonLog::LogBuilder;

constexpr std::chrono::milliseconds FIRST_UPDATE_DELAY{1000};

// The store counts its capacity in 32 bits; larger capacities mean "no limit".
unsigned int storeCapacity(std::size_t maxCacheSize) {
  constexpr std::size_t LARGEST = std::numeric_limits<unsigned int>::max();
  return static_cast<unsigned int>(maxCacheSize < LARGEST ? maxCacheSize : LARGEST);
}

}  // namespace

ReachabilityCache::ReachabilityCache(ICHRProvider* chrProvider, const Config& config)
    : chrProvider(chrProvider), config(config) {
  // A guard refuses a second cache before this one logs or starts anything.
  if (auto* guard = dynamic_cast<ReachabilityCheckerGuard*>(config.reachabilityChecker.get())) {
    guard->claimForCache();
  }
  logFacade(LogPriority::INFO,
            LogBuilder(label::REACHABILITY_CACHE, nullptr)
                .d(key::EVENT, event::CACHE_CREATED)
                .d(key::MAX_CACHE_SIZE, config.maxCacheSize)
                .d(key::PERIODIC_UPDATES, boolText(config.enablePeriodicUpdates)));
  cacheCore = std::make_shared<CacheCore>(storeCapacity(config.maxCacheSize));
  // The updater gets the facade's own copy of the provider pointer.
  updater = std::make_unique<ReachabilityUpdater>(cacheCore, config.reachabilityChecker,
                                                  this->chrProvider);
  if (config.enablePeriodicUpdates) {
    updater->startPeriodicUpdates(config.updateInterval, FIRST_UPDATE_DELAY);
    updater->enableProactiveUpdates();
  }
}

ReachabilityCache::~ReachabilityCache() {
  logFacade(LogPriority::INFO, LogBuilder(label::REACHABILITY_CACHE_DESTRUCTOR, nullptr)
                                   .d(key::EVENT, event::CACHE_DESTROYED)
                                   .d(key::CACHE_SIZE, cacheCore->size()));
  // Trackers still attached close now: later calls of theirs must not reach
  // this object.
  cacheCore->changeFeed().cacheDestroyed();
  if (updater) {
    updater->stopPeriodicUpdates();
  }
  // Late answers are dropped from here on, before the updater goes.
  if (auto* guard = dynamic_cast<ReachabilityCheckerGuard*>(config.reachabilityChecker.get())) {
    guard->close();
  }
}

bool ReachabilityCache::isEntityReachable(const std::string& entityId) const {
  return cacheCore->isEntityReachable(entityId);
}

bool ReachabilityCache::isCapabilityReachable(const std::string& entityId,
                                              const CapabilityKey& capabilityKey) const {
  return cacheCore->isCapabilityReachable(entityId, capabilityKey);
}

bool ReachabilityCache::isCapabilityReachableByDriver(
    const std::string& entityId, const CapabilityKey& capabilityKey,
    applianceDriver::ApplianceDriverType driverType) const {
  return cacheCore->isCapabilityReachableByDriver(entityId, capabilityKey, driverType);
}

std::string ReachabilityCache::getEndpointIdForEntity(const std::string& entityId) const {
  return cacheCore->getEndpointIdForEntity(entityId);
}

std::string ReachabilityCache::getEntityIdForEndpoint(const std::string& endpointId) const {
  return cacheCore->getEntityIdForEndpoint(endpointId);
}

std::string ReachabilityCache::getAdapterName(const std::string& entityId,
                                              const std::string& endpointId) const {
  return cacheCore->getAdapterName(entityId, endpointId);
}

std::vector<EndpointInfo> ReachabilityCache::getEndpointsForEntity(
    const std::string& entityId) const {
  return cacheCore->getEndpointsForEntity(entityId);
}

EndpointInfo ReachabilityCache::getPreferredEndpoint(const std::string& entityId,
                                                     const std::string& preferredAdapter) const {
  std::vector<EndpointInfo> endpoints = cacheCore->getEndpointsForEntity(entityId);
  if (endpoints.empty()) {
    logFacade(LogPriority::WARN, LogBuilder(label::GET_PREFERRED_ENDPOINT, nullptr)
                                     .d(key::ACTION, action::GET_PREFERRED_ENDPOINT)
                                     .d(key::ENTITY_ID, entityId.c_str())
                                     .d(key::REASON, reason::NO_ENDPOINTS_FOUND));
    return {"", "", "", {}};
  }
  for (EndpointInfo& endpoint : endpoints) {
    if (endpoint.adapterName == preferredAdapter) {
      return std::move(endpoint);
    }
  }
  return std::move(endpoints.front());
}

void ReachabilityCache::invalidate() { cacheCore->clear(); }

bool ReachabilityCache::removeEntity(const std::string& entityId) {
  return cacheCore->removeEntity(entityId);
}

std::size_t ReachabilityCache::size() const { return cacheCore->size(); }

void ReachabilityCache::updateEndpoints(const std::vector<CachedEndpoint>& endpoints) {
  for (const CachedEndpoint& endpoint : endpoints) {
    cacheCore->insertEndpoint(endpoint);
  }
}

std::unordered_map<std::string, std::unordered_map<std::string, std::string>>
ReachabilityCache::getReachableEndpointsMap() const {
  return cacheCore->getReachableEndpointsMap();
}

bool ReachabilityCache::registerReachabilityListener(const std::string& listenerId,
                                                     ReachabilityListener callback) {
  return cacheCore->registerReachabilityListener(listenerId, std::move(callback));
}

bool ReachabilityCache::unregisterReachabilityListener(const std::string& listenerId) {
  return cacheCore->unregisterReachabilityListener(listenerId);
}

ReachabilityCacheHealth ReachabilityCache::health() const { return updater->health(); }

}  // namespace veranda::reachabilityCache
