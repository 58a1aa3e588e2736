// The locked in-memory store of endpoints, entities and per-driver
// capabilities, with the table of reachability listeners.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "applianceDriver/ApplianceDriver.h"
#include "memory/Arena.h"
#include "reachabilityCache/CachedEndpoint.h"
#include "reachabilityCache/CapabilityKey.h"
#include "reachabilityCache/EndpointInfo.h"
#include "reachabilityCache/ReachabilityListener.h"
#include "store/ChangeFeed.h"
#include "sync/Mutex.h"
#include "sync/SharedMutex.h"

namespace veranda::reachabilityCache {

// Holds at most `maxSize` entities, each with the endpoints that serve it in
// insertion order. Entity ids are normalised (one leading
// "orbt1.veyra.endpoint." removed) before use; endpoint ids are used as given.
// An entity is reachable when one of its endpoints holds capabilities of
// NATIVE or CONNECTED (0, 1).
//
// Thread safety: every public operation may be called from any thread. Store
// operations take the store mutex for their whole body: queries (the const
// operations) shared, so that they run side by side, and changes exclusively;
// each operation sees one state of the store. Listener operations take a
// separate listener mutex; the two are never held together, and listeners are
// called outside both. Changing the store never notifies: the
// caller that decides a change happened calls notifyReachabilityListeners().
// Every change records the entities it touched in the change feed, with the
// store mutex held.
class CacheCore {
 public:
  // Endpoint ids viewed, not copied, with their nodes in an arena: the ids a
  // cycle's provider named.
  using EndpointIdSet =
      std::unordered_set<std::string_view, std::hash<std::string_view>,
                         std::equal_to<std::string_view>, ArenaAllocator<std::string_view>>;

  // `entityId` without one leading "orbt1.veyra.endpoint." (exact,
  // case-sensitive): the id under which the store keeps the entity. The
  // result lives in a buffer of the calling thread that keeps its capacity,
  // so that ids are normalised without allocating; the next call on the same
  // thread, a store operation included, overwrites it. Copy it to keep it.
  static const std::string& normalizeEntityId(const std::string& entityId);

  explicit CacheCore(unsigned int maxSize);
  ~CacheCore();

  CacheCore(const CacheCore&) = delete;
  CacheCore& operator=(const CacheCore&) = delete;

  // ---- Changes ----

  // Inserts the endpoint, or merges it into the stored one of the same
  // endpoint id: each driver type it carries replaces the stored set, other
  // driver types stay, and a non-empty adapter name replaces the stored one.
  // Refuses empty ids and, when full, endpoints of new entities. True when
  // the store now holds the endpoint.
  bool insertEndpoint(const CachedEndpoint& endpoint) RC_EXCLUDES(storeMutex);
  // The same, taking over the record's strings and capability sets rather
  // than copying them.
  bool insertEndpoint(CachedEndpoint&& endpoint) RC_EXCLUDES(storeMutex);
  // Inserts `info` with its capabilities filed under NO_DRIVER.
  bool insertEndpoint(const EndpointInfo& info) RC_EXCLUDES(storeMutex);
  // The same as inserting CachedEndpoint(endpointId, entityId, adapterName,
  // driverType, capabilities), without building that record when the
  // endpoint is stored already.
  bool insertEndpoint(const std::string& endpointId, const std::string& entityId,
                      const std::string& adapterName,
                      applianceDriver::ApplianceDriverType driverType,
                      const CapabilitySet& capabilities) RC_EXCLUDES(storeMutex);
  // Removes one endpoint of one entity, and the entity with its last endpoint.
  bool removeEndpoint(const std::string& entityId, const std::string& endpointId)
      RC_EXCLUDES(storeMutex);
  // Removes the entity with all its endpoints.
  bool removeEntity(const std::string& entityId) RC_EXCLUDES(storeMutex);
  // Removes every entity; listeners stay registered.
  void clear() RC_EXCLUDES(storeMutex);
  // Empties the endpoint's capabilities, which makes it unreachable; the
  // endpoint stays stored. False when it is not stored.
  bool clearEndpointCapabilities(const std::string& entityId, const std::string& endpointId)
      RC_EXCLUDES(storeMutex);

  // ---- Size ----

  std::size_t size() const RC_EXCLUDES(storeMutex);
  unsigned int maxSize() const { return maxSize_; }
  bool isFull() const RC_EXCLUDES(storeMutex);

  // ---- Queries (each logs its answer, except where noted) ----

  bool isEntityPresent(const std::string& entityId) const RC_EXCLUDES(storeMutex);
  bool isEntityReachable(const std::string& entityId) const RC_EXCLUDES(storeMutex);
  // True when any endpoint holds the key under any driver type.
  bool isCapabilityReachable(const std::string& entityId, const CapabilityKey& capabilityKey) const
      RC_EXCLUDES(storeMutex);
  // True when any endpoint holds the key under exactly `driverType`.
  bool isCapabilityReachableByDriver(const std::string& entityId,
                                     const CapabilityKey& capabilityKey,
                                     applianceDriver::ApplianceDriverType driverType) const
      RC_EXCLUDES(storeMutex);
  // The entity's earliest stored endpoint id; empty when missing.
  std::string getEndpointIdForEntity(const std::string& entityId) const RC_EXCLUDES(storeMutex);
  // The normalised entity the endpoint was last inserted under; empty when unknown.
  std::string getEntityIdForEndpoint(const std::string& endpointId) const RC_EXCLUDES(storeMutex);
  // Not logged. Empty when the entity or the endpoint is missing.
  std::string getAdapterName(const std::string& entityId, const std::string& endpointId) const
      RC_EXCLUDES(storeMutex);
  // Not logged. Each endpoint in external form, in insertion order.
  std::vector<EndpointInfo> getEndpointsForEntity(const std::string& entityId) const
      RC_EXCLUDES(storeMutex);
  // Not logged. Every entity with each endpoint's adapter, reachable or not.
  std::unordered_map<std::string, std::unordered_map<std::string, std::string>>
  getReachableEndpointsMap() const RC_EXCLUDES(storeMutex);
  // Not logged. A copy of the endpoint id to entity id index.
  std::unordered_map<std::string, std::string> getCachedEndpointIds() const RC_EXCLUDES(storeMutex);
  // Not logged. The (endpoint id, entity id) pairs of the endpoint index
  // whose endpoint id `named` lacks, in the order in which a copy of the
  // index (getCachedEndpointIds()) lists them.
  std::vector<std::pair<std::string, std::string>> getEndpointsNotNamed(
      const EndpointIdSet& named) const RC_EXCLUDES(storeMutex);
  // Not logged. Every entity that isEntityReachable() answers true for.
  std::unordered_set<std::string> getReachableEntityIds() const RC_EXCLUDES(storeMutex);
  // Not logged. What isEntityReachable() answers.
  bool isEntityReachableUnlogged(const std::string& entityId) const RC_EXCLUDES(storeMutex);
  // Not logged. What getEntityIdForEndpoint() answers.
  std::string entityIdOfEndpoint(const std::string& endpointId) const RC_EXCLUDES(storeMutex);

  // ---- Followers ----

  // The entities each change touched, for followers of the store.
  ChangeFeed& changeFeed() { return changeFeed_; }

  // ---- Listeners ----

  // False, keeping the registered callback, when the id is taken. The
  // callback is not checked: it must be callable.
  bool registerReachabilityListener(const std::string& listenerId, ReachabilityListener callback)
      RC_EXCLUDES(listenerMutex);
  bool unregisterReachabilityListener(const std::string& listenerId) RC_EXCLUDES(listenerMutex);
  // Calls every listener registered at the time of the call once, on this
  // thread, outside every lock. A listener may re-enter the store.
  void notifyReachabilityListeners(const std::string& endpointId, const std::string& entityId,
                                   bool isReachable) RC_EXCLUDES(listenerMutex);

 private:
  // Lookups under the store mutex, of an entity id already normalised. Null
  // when the entity is absent or has no endpoints.
  const std::vector<CachedEndpoint>* findEndpointsLocked(const std::string& entityId) const
      RC_REQUIRES_SHARED(storeMutex);
  // Null only when the entity is absent.
  std::vector<CachedEndpoint>* findEndpointsMutableLocked(const std::string& entityId)
      RC_REQUIRES(storeMutex);
  // The first record with `endpointId`, or the vector's end.
  static std::vector<CachedEndpoint>::const_iterator findEndpointInVector(
      const std::vector<CachedEndpoint>& endpoints, const std::string& endpointId);
  static std::vector<CachedEndpoint>::iterator findEndpointInVector(
      std::vector<CachedEndpoint>& endpoints, const std::string& endpointId);

  // A record's fields, borrowed from the caller.
  struct BorrowedRecord {
    const std::string& endpointId;
    const std::string& entityId;
    const std::string& adapterName;
    applianceDriver::ApplianceDriverType driverType;
    const CapabilitySet& capabilities;
  };

  // Every insertEndpoint(): copies from an lvalue, moves from an rvalue,
  // copies only what it keeps from a borrowed record.
  template <typename Record>
  bool insertRecord(Record&& endpoint) RC_EXCLUDES(storeMutex);

  std::unordered_map<std::string, std::vector<CachedEndpoint>> entityIndex
      RC_GUARDED_BY(storeMutex);
  std::unordered_map<std::string, std::string> endpointIndex RC_GUARDED_BY(storeMutex);
  const unsigned int maxSize_;
  mutable SharedMutex storeMutex;
  using ListenerTable = std::unordered_map<std::string, ReachabilityListener>;
  ListenerTable listeners RC_GUARDED_BY(listenerMutex);
  // A copy of `listeners` taken at each change of it: a notification calls
  // the listeners of a copy of the table, and this one is made once, not per
  // notification. Null until the first registration.
  std::shared_ptr<const ListenerTable> listenerSnapshot RC_GUARDED_BY(listenerMutex);
  mutable Mutex listenerMutex;
  ChangeFeed changeFeed_;
};

}  // namespace veranda::reachabilityCache
