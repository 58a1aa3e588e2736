// The cache of reachable smart-home endpoints: the one class a host uses.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "applianceDriver/ApplianceDriver.h"
#include "reachabilityCache/CachedEndpoint.h"
#include "reachabilityCache/CapabilityKey.h"
#include "reachabilityCache/EndpointInfo.h"
#include "reachabilityCache/Export.h"
#include "reachabilityCache/ICHRProvider.h"
#include "reachabilityCache/IReachabilityChecker.h"
#include "reachabilityCache/ReachabilityCacheHealth.h"
#include "reachabilityCache/ReachabilityListener.h"

namespace veranda::reachabilityCache {

class CacheCore;
class ReachabilityUpdater;

// Keeps which entities, endpoints and capabilities are reachable, and keeps
// itself current: with refresh enabled, a cycle one second after construction
// and then every `updateInterval` (a zero interval makes cycles run back to
// back) asks the provider for the endpoints to track, drops the ones it no
// longer names and checks the rest, while connectivity events from the
// checker update single endpoints in between.
//
// Thread safety: every operation may be called from any thread between the
// end of construction and the start of destruction.
//
// Listeners hear per endpoint, not per entity: (endpoint id, entity id as the
// result carried it, new state). Each result of a check or event is judged
// against the entity's reachability just before it is applied, in the order
// the results arrive:
// - "reachable" when the entity was not reachable. A connectivity event that
//   brings a cached endpoint back is announced at once, yet
//   isEntityReachable() stays false until a check confirms the device, which
//   is announced again.
// - "unreachable" when the entity was reachable, even if it stays reachable
//   through another endpoint; such an endpoint is announced at every cycle.
// - Within one batch, an entity that is reachable before and after the batch
//   may be heard lost and back, depending on the order of its results.
// - Not announced: endpoints dropped because the provider no longer names
//   them, updateEndpoints(), removeEntity(), invalidate(), an unreachable
//   result for an entity that was not reachable, and refused insertions.
// EntityReachabilityTracker reports changes of isEntityReachable() per
// entity, these silent ones included.
// Listeners run on the checker's threads or the cache's worker, outside every
// lock of the cache, so they may call back into it. Two notifications may run
// at the same time, so listeners must be safe to call concurrently.
// Unregistering does not wait for a notification under way on another thread:
// the listener may still be running, or be called once more by it.
//
// Exceptions: the cache catches nothing that the provider or a listener
// throws. The exception escapes into the thread that called them (the
// cache's worker, or the checker's thread for a check's answer): with the
// library's platform stand-ins, and with any executor or driver that does not
// catch it, the process ends (std::terminate). A thread that catches it
// leaves the cycle or the answer half applied, with no log line about it; a
// provider's exception also ends the chain of periodic cycles, and a
// listener's during an answer stops an EntityReachabilityTracker of this
// cache from reporting that answer's entities. Providers and listeners must
// not throw.
//
// Teardown: checks handed to the checker are not cancelled, and their
// completions refer to the cache. Put a ReachabilityCheckerGuard between the
// cache and its checker: the destructor closes a guard that is the cache's
// checker (the host may close it earlier itself), so that from then on no
// answer or event reaches the cache, and the guard keeps the checker alive
// for answers that arrive later; the guard and the checker may be dropped, or
// kept in a Config, after the cache. No listener runs once the destructor has
// returned. Without a guard the host must itself keep every answer from
// arriving after destruction. The provider must outlive the cache, and a
// listener must not destroy the cache it listens to. ReachabilityCacheOwner
// assembles guard, cache and tracker and takes them down in this order.
class REACHABILITY_CACHE_EXPORT ReachabilityCache {
 public:
  // Filled by the host; the library has no defaults of its own.
  struct Config {
    std::size_t maxCacheSize;  // most entities the cache holds; new ones are refused beyond
    std::chrono::seconds updateInterval;  // period of the refresh cycle
    bool enablePeriodicUpdates;           // starts periodic and event-driven refresh
    std::shared_ptr<IReachabilityChecker> reachabilityChecker;  // null: no check ever starts
  };

  // Told of a change of an endpoint's reachability; see registerReachabilityListener().
  using ReachabilityListener = reachabilityCache::ReachabilityListener;

  // `chrProvider` is borrowed and may be null (then periodic cycles stop at the
  // first one). `config` is copied; later changes to it have no effect. A
  // ReachabilityCheckerGuard as the checker serves this cache only: one that
  // serves another cache already, or is closed, refuses it by throwing
  // std::logic_error from here, before anything is logged or started.
  ReachabilityCache(ICHRProvider* chrProvider, const Config& config);
  virtual ~ReachabilityCache();

  ReachabilityCache(const ReachabilityCache&) = delete;
  ReachabilityCache& operator=(const ReachabilityCache&) = delete;

  // Entity ids may be given with or without the "orbt1.veyra.endpoint."
  // prefix; both name the same entity. Endpoint ids are used as given.

  // True when an endpoint of the entity holds capabilities of NATIVE or CONNECTED (0, 1).
  virtual bool isEntityReachable(const std::string& entityId) const;
  // True when an endpoint of the entity holds the capability, from any driver.
  virtual bool isCapabilityReachable(const std::string& entityId,
                                     const CapabilityKey& capabilityKey) const;
  // True when an endpoint of the entity holds the capability from `driverType`.
  virtual bool isCapabilityReachableByDriver(const std::string& entityId,
                                             const CapabilityKey& capabilityKey,
                                             applianceDriver::ApplianceDriverType driverType) const;
  // The entity's earliest stored endpoint id; empty when unknown.
  virtual std::string getEndpointIdForEntity(const std::string& entityId) const;
  // The entity (without prefix) the endpoint was last stored under; empty when unknown.
  virtual std::string getEntityIdForEndpoint(const std::string& endpointId) const;
  // The adapter of one endpoint of the entity; empty when unknown.
  virtual std::string getAdapterName(const std::string& entityId,
                                     const std::string& endpointId) const;
  // The entity's endpoints in insertion order, each with all its capabilities.
  virtual std::vector<EndpointInfo> getEndpointsForEntity(const std::string& entityId) const;
  // The entity's first endpoint on `preferredAdapter`, else its first endpoint;
  // a record with empty fields when the entity has none.
  virtual EndpointInfo getPreferredEndpoint(const std::string& entityId,
                                            const std::string& preferredAdapter) const;
  // Empties the cache; listeners stay registered.
  virtual void invalidate();
  // Drops the entity with all its endpoints; false when it was not cached.
  virtual bool removeEntity(const std::string& entityId);
  // The number of cached entities.
  virtual std::size_t size() const;
  // Inserts or merges each record in order; refused records are skipped.
  // Listeners are not told.
  virtual void updateEndpoints(const std::vector<CachedEndpoint>& endpoints);
  // Every cached entity with its endpoints and their adapters, whatever their
  // reachability.
  virtual std::unordered_map<std::string, std::unordered_map<std::string, std::string>>
  getReachableEndpointsMap() const;
  // Registers `callback` under `listenerId`; false when the id is taken.
  virtual bool registerReachabilityListener(const std::string& listenerId,
                                            ReachabilityListener callback);
  // False when no listener has that id.
  virtual bool unregisterReachabilityListener(const std::string& listenerId);

  // Whether the cache hears connectivity events and how its checks went.
  // Writes no log line.
  ReachabilityCacheHealth health() const;

 private:
  // Read the store without the query log lines. The tracker also checks
  // that its guard is this cache's checker; the owner starts manual checks.
  friend class EntityReachabilityTracker;
  friend class ReachabilityCacheOwner;

  ICHRProvider* chrProvider;
  std::shared_ptr<CacheCore> cacheCore;
  std::unique_ptr<ReachabilityUpdater> updater;
  Config config;
};

}  // namespace veranda::reachabilityCache
