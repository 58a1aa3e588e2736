// Fuzzes sequences of store and facade operations against a reference model
// of the store's rules: capacity, entity id normalisation, the merge of
// driver capabilities, the last-writer-wins endpoint index, reachability and
// the listener table. The bytes pick the capacity, then up to 32 operations
// and their arguments; every answer, and at the end the whole contents, are
// compared with the model.
#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "FuzzCheck.h"
#include "reachabilityCache/ReachabilityCache.h"
#include "store/CacheCore.h"

namespace {

using veranda::applianceDriver::ApplianceDriverType;
using veranda::reachabilityCache::CacheCore;
using veranda::reachabilityCache::CachedEndpoint;
using veranda::reachabilityCache::CapabilityKey;
using veranda::reachabilityCache::CapabilitySet;
using veranda::reachabilityCache::EndpointInfo;
using veranda::reachabilityCache::ReachabilityCache;

using Key = std::pair<std::string, std::string>;
using Keys = std::set<Key>;
using Drivers = std::map<int, Keys>;  // driver type to its capabilities

const std::string kPrefix = "orbt1.veyra.endpoint.";
const std::vector<std::string> kEntityIds = {"",
                                             "a",
                                             "b",
                                             kPrefix + "a",
                                             kPrefix + "b",
                                             kPrefix,
                                             kPrefix + kPrefix + "a",
                                             "ORBT1.VEYRA.ENDPOINT.a",
                                             "x" + kPrefix + "a",
                                             "orbt1.veyra.endpoint"};
const std::vector<std::string> kEndpointIds = {"", "e1", "e2", "e3", "e4"};
const std::vector<std::string> kAdapters = {"", "Z", "W", "PROT_WIFI-ADAPTER"};
const std::vector<std::string> kListenerIds = {"", "a", "b"};
const std::vector<Key> kKeys = {{"p", "m"}, {"m", "p"}, {"p", ""}, {"", ""}};
constexpr int kDriverTypes = 4;

// ---- The reference model ----

struct ModelEndpoint {
  std::string endpointId;
  std::string adapterName;
  Drivers drivers;
};

class Model {
 public:
  explicit Model(unsigned int capacity) : capacity_(capacity) {}

  static std::string normalize(const std::string& entityId) {
    const bool prefixed = entityId.size() >= kPrefix.size() &&
                          std::equal(kPrefix.begin(), kPrefix.end(), entityId.begin());
    return prefixed ? entityId.substr(kPrefix.size()) : entityId;
  }

  bool insert(const std::string& endpointId, const std::string& entityId,
              const std::string& adapterName, const Drivers& drivers) {
    if (entityId.empty() || endpointId.empty()) {
      return false;
    }
    const std::string id = normalize(entityId);
    if (entities.count(id) == 0 && entities.size() >= capacity_) {
      return false;
    }
    std::vector<ModelEndpoint>& endpoints = entities[id];
    ModelEndpoint* stored = find(endpoints, endpointId);
    if (stored == nullptr) {
      endpoints.push_back({endpointId, adapterName, drivers});
    } else {
      for (const auto& [type, keys] : drivers) {
        stored->drivers[type] = keys;
      }
      stored->adapterName = adapterName.empty() ? stored->adapterName : adapterName;
    }
    index[endpointId] = id;
    return true;
  }

  bool removeEndpoint(const std::string& entityId, const std::string& endpointId) {
    const auto entity = entities.find(normalize(entityId));
    if (entity == entities.end() || find(entity->second, endpointId) == nullptr) {
      return false;
    }
    std::vector<ModelEndpoint>& endpoints = entity->second;
    endpoints.erase(endpoints.begin() + (find(endpoints, endpointId) - endpoints.data()));
    index.erase(endpointId);
    if (endpoints.empty()) {
      entities.erase(entity);
    }
    return true;
  }

  bool removeEntity(const std::string& entityId) {
    const auto entity = entities.find(normalize(entityId));
    if (entity == entities.end()) {
      return false;
    }
    for (const ModelEndpoint& endpoint : entity->second) {
      index.erase(endpoint.endpointId);
    }
    entities.erase(entity);
    return true;
  }

  void clear() {
    entities.clear();
    index.clear();
  }

  bool clearCapabilities(const std::string& entityId, const std::string& endpointId) {
    const auto entity = entities.find(normalize(entityId));
    ModelEndpoint* stored = entity == entities.end() ? nullptr : find(entity->second, endpointId);
    if (stored == nullptr) {
      return false;
    }
    stored->drivers.clear();
    return true;
  }

  // The entity's endpoints; empty when it is not stored.
  std::vector<ModelEndpoint> endpointsOf(const std::string& entityId) const {
    const auto entity = entities.find(normalize(entityId));
    return entity == entities.end() ? std::vector<ModelEndpoint>() : entity->second;
  }

  bool reachable(const std::string& entityId) const {
    for (const ModelEndpoint& endpoint : endpointsOf(entityId)) {
      if (endpoint.drivers.count(0) != 0 || endpoint.drivers.count(1) != 0) {
        return true;
      }
    }
    return false;
  }

  // Whether an endpoint holds `key` from `type`, or from any type when -1.
  bool hasCapability(const std::string& entityId, const Key& key, int type) const {
    for (const ModelEndpoint& endpoint : endpointsOf(entityId)) {
      for (const auto& [driver, keys] : endpoint.drivers) {
        if ((type < 0 || driver == type) && keys.count(key) != 0) {
          return true;
        }
      }
    }
    return false;
  }

  std::string adapterOf(const std::string& entityId, const std::string& endpointId) const {
    std::vector<ModelEndpoint> endpoints = endpointsOf(entityId);
    const ModelEndpoint* stored = find(endpoints, endpointId);
    return stored == nullptr ? "" : stored->adapterName;
  }

  unsigned int capacity() const { return capacity_; }

  std::map<std::string, std::vector<ModelEndpoint>> entities;  // by normalised id
  std::map<std::string, std::string> index;                    // endpoint to entity
  std::set<std::string> listeners;

 private:
  template <typename Endpoints>
  static auto find(Endpoints& endpoints, const std::string& endpointId)
      -> decltype(endpoints.data()) {
    for (auto& endpoint : endpoints) {
      if (endpoint.endpointId == endpointId) {
        return &endpoint;
      }
    }
    return nullptr;
  }

  unsigned int capacity_;
};

// ---- Comparison with the model ----

Keys keysOf(const CapabilitySet& capabilities) {
  Keys keys;
  for (const CapabilityKey& key : capabilities) {
    keys.emplace(key.capability, key.qualifier);
  }
  return keys;
}

Keys allKeys(const ModelEndpoint& endpoint) {
  Keys keys;
  for (const auto& entry : endpoint.drivers) {
    keys.insert(entry.second.begin(), entry.second.end());
  }
  return keys;
}

void checkExternal(const EndpointInfo& info, const ModelEndpoint& endpoint,
                   const std::string& entityId) {
  FUZZ_CHECK(info.endpointId == endpoint.endpointId);
  FUZZ_CHECK(info.entityId == Model::normalize(entityId));
  FUZZ_CHECK(info.adapterName == endpoint.adapterName);
  FUZZ_CHECK(keysOf(info.capabilities) == allKeys(endpoint));
}

// Every query about `entityId` (and `endpointId`) answers as the model does.
template <typename Cache>
void checkQueries(const Cache& cache, const Model& model, const std::string& entityId,
                  const std::string& endpointId) {
  const std::vector<ModelEndpoint> endpoints = model.endpointsOf(entityId);
  if constexpr (std::is_same_v<Cache, CacheCore>) {
    FUZZ_CHECK(cache.isEntityPresent(entityId) == !endpoints.empty());
  }
  FUZZ_CHECK(cache.isEntityReachable(entityId) == model.reachable(entityId));
  for (const Key& key : kKeys) {
    const CapabilityKey capabilityKey{key.first, key.second};
    FUZZ_CHECK(cache.isCapabilityReachable(entityId, capabilityKey) ==
               model.hasCapability(entityId, key, -1));
    for (int type = 0; type < kDriverTypes; ++type) {
      FUZZ_CHECK(cache.isCapabilityReachableByDriver(entityId, capabilityKey,
                                                     static_cast<ApplianceDriverType>(type)) ==
                 model.hasCapability(entityId, key, type));
    }
  }
  FUZZ_CHECK(cache.getEndpointIdForEntity(entityId) ==
             (endpoints.empty() ? "" : endpoints.front().endpointId));
  const auto indexed = model.index.find(endpointId);
  FUZZ_CHECK(cache.getEntityIdForEndpoint(endpointId) ==
             (indexed == model.index.end() ? "" : indexed->second));
  FUZZ_CHECK(cache.getAdapterName(entityId, endpointId) == model.adapterOf(entityId, endpointId));
  const std::vector<EndpointInfo> listed = cache.getEndpointsForEntity(entityId);
  FUZZ_CHECK(listed.size() == endpoints.size());
  for (std::size_t i = 0; i < listed.size(); ++i) {
    checkExternal(listed[i], endpoints[i], entityId);
  }
}

// The whole contents agree with the model, and so does every query about
// every stored entity.
template <typename Cache>
void checkContents(const Cache& cache, const Model& model) {
  FUZZ_CHECK(cache.size() == model.entities.size());
  std::map<std::string, std::map<std::string, std::string>> expected;
  for (const auto& [entityId, endpoints] : model.entities) {
    for (const ModelEndpoint& endpoint : endpoints) {
      expected[entityId][endpoint.endpointId] = endpoint.adapterName;
    }
    checkQueries(cache, model, entityId, endpoints.back().endpointId);
  }
  std::map<std::string, std::map<std::string, std::string>> stored;
  for (const auto& [entityId, adapters] : cache.getReachableEndpointsMap()) {
    stored[entityId] = {adapters.begin(), adapters.end()};
  }
  FUZZ_CHECK(stored == expected);
  if constexpr (std::is_same_v<Cache, CacheCore>) {
    const auto index = cache.getCachedEndpointIds();
    FUZZ_CHECK((std::map<std::string, std::string>(index.begin(), index.end())) == model.index);
    FUZZ_CHECK(cache.isFull() == (model.entities.size() >= model.capacity()));
  }
}

// ---- Decoding ----

// An entry of `table`, or now and then a short string of the input's own.
std::string pick(FuzzedDataProvider& input, const std::vector<std::string>& table) {
  const std::size_t i = input.ConsumeIntegralInRange<std::size_t>(0, table.size());
  return i < table.size() ? table[i] : input.ConsumeRandomLengthString(8);
}

Keys pickKeys(FuzzedDataProvider& input) {
  const uint8_t mask = input.ConsumeIntegral<uint8_t>();
  Keys keys;
  for (std::size_t i = 0; i < kKeys.size(); ++i) {
    if ((mask >> i) & 1U) {
      keys.insert(kKeys[i]);
    }
  }
  return keys;
}

CapabilitySet toSet(const Keys& keys) {
  CapabilitySet set;
  for (const Key& key : keys) {
    set.insert({key.first, key.second});
  }
  return set;
}

// A record with one or two driver types, and the same for the model.
std::pair<CachedEndpoint, Drivers> pickRecord(FuzzedDataProvider& input) {
  const std::string endpointId = pick(input, kEndpointIds);
  const std::string entityId = pick(input, kEntityIds);
  const std::string adapter = pick(input, kAdapters);
  Drivers drivers;
  const int type = input.ConsumeIntegralInRange(0, kDriverTypes - 1);
  drivers[type] = pickKeys(input);
  CachedEndpoint record(endpointId, entityId, adapter, static_cast<ApplianceDriverType>(type),
                        toSet(drivers[type]));
  if (input.ConsumeBool()) {
    const int second = input.ConsumeIntegralInRange(0, kDriverTypes - 1);
    drivers[second] = pickKeys(input);
    record.driverCapabilities[static_cast<ApplianceDriverType>(second)] = toSet(drivers[second]);
  }
  return {record, drivers};
}

using Calls = std::vector<std::tuple<std::string, std::string, std::string, bool>>;

template <typename Cache>
bool registerRecorder(Cache& cache, const std::string& listenerId, Calls& calls) {
  return cache.registerReachabilityListener(
      listenerId, [listenerId, &calls](const std::string& endpointId, const std::string& entityId,
                                       bool reachable) {
        calls.emplace_back(listenerId, endpointId, entityId, reachable);
      });
}

enum Operation {
  kInsertRecord,
  kInsertInfo,
  kInsertBatch,
  kRemoveEndpoint,
  kRemoveEntity,
  kClear,
  kClearCapabilities,
  kQuery,
  kPreferredEndpoint,
  kRegister,
  kUnregister,
  kNotify,
  kLastOperation = kNotify
};

// Applies one operation to the store and, where it has one, to the facade.
void apply(FuzzedDataProvider& input, CacheCore& store, Model& storeModel, ReachabilityCache& cache,
           Model& cacheModel, Calls& calls) {
  switch (input.ConsumeIntegralInRange<int>(0, kLastOperation)) {
    case kInsertRecord: {
      const auto [record, drivers] = pickRecord(input);
      FUZZ_CHECK(store.insertEndpoint(record) == storeModel.insert(record.endpointId,
                                                                   record.entityId,
                                                                   record.adapterName, drivers));
      cache.updateEndpoints({record});
      cacheModel.insert(record.endpointId, record.entityId, record.adapterName, drivers);
      break;
    }
    case kInsertInfo: {
      const Keys keys = pickKeys(input);
      const EndpointInfo info(pick(input, kEndpointIds), pick(input, kEntityIds),
                              pick(input, kAdapters), toSet(keys));
      FUZZ_CHECK(store.insertEndpoint(info) ==
                 storeModel.insert(info.endpointId, info.entityId, info.adapterName, {{2, keys}}));
      cache.updateEndpoints({CachedEndpoint(info)});
      cacheModel.insert(info.endpointId, info.entityId, info.adapterName, {{2, keys}});
      break;
    }
    case kInsertBatch: {
      std::vector<CachedEndpoint> batch;
      for (int n = input.ConsumeIntegralInRange(0, 3); n > 0; --n) {
        const auto [record, drivers] = pickRecord(input);
        batch.push_back(record);
        cacheModel.insert(record.endpointId, record.entityId, record.adapterName, drivers);
      }
      cache.updateEndpoints(batch);
      break;
    }
    case kRemoveEndpoint: {
      const std::string entityId = pick(input, kEntityIds);
      const std::string endpointId = pick(input, kEndpointIds);
      FUZZ_CHECK(store.removeEndpoint(entityId, endpointId) ==
                 storeModel.removeEndpoint(entityId, endpointId));
      break;
    }
    case kRemoveEntity: {
      const std::string entityId = pick(input, kEntityIds);
      FUZZ_CHECK(store.removeEntity(entityId) == storeModel.removeEntity(entityId));
      FUZZ_CHECK(cache.removeEntity(entityId) == cacheModel.removeEntity(entityId));
      break;
    }
    case kClear:
      store.clear();
      storeModel.clear();
      cache.invalidate();
      cacheModel.clear();
      break;
    case kClearCapabilities: {
      const std::string entityId = pick(input, kEntityIds);
      const std::string endpointId = pick(input, kEndpointIds);
      FUZZ_CHECK(store.clearEndpointCapabilities(entityId, endpointId) ==
                 storeModel.clearCapabilities(entityId, endpointId));
      break;
    }
    case kQuery: {
      const std::string entityId = pick(input, kEntityIds);
      const std::string endpointId = pick(input, kEndpointIds);
      checkQueries(store, storeModel, entityId, endpointId);
      checkQueries(cache, cacheModel, entityId, endpointId);
      break;
    }
    case kPreferredEndpoint: {
      const std::string entityId = pick(input, kEntityIds);
      const std::string adapter = pick(input, kAdapters);
      const EndpointInfo chosen = cache.getPreferredEndpoint(entityId, adapter);
      const std::vector<ModelEndpoint> endpoints = cacheModel.endpointsOf(entityId);
      if (endpoints.empty()) {
        FUZZ_CHECK(chosen.endpointId.empty() && chosen.entityId.empty() &&
                   chosen.adapterName.empty() && chosen.capabilities.empty());
        break;
      }
      const ModelEndpoint* expected = &endpoints.front();
      for (auto it = endpoints.rbegin(); it != endpoints.rend(); ++it) {
        expected = it->adapterName == adapter ? &*it : expected;
      }
      checkExternal(chosen, *expected, entityId);
      break;
    }
    case kRegister: {
      const std::string listenerId = pick(input, kListenerIds);
      const bool added = storeModel.listeners.insert(listenerId).second;
      FUZZ_CHECK(registerRecorder(store, listenerId, calls) == added);
      FUZZ_CHECK(registerRecorder(cache, listenerId, calls) == added);
      break;
    }
    case kUnregister: {
      const std::string listenerId = pick(input, kListenerIds);
      const bool removed = storeModel.listeners.erase(listenerId) != 0;
      FUZZ_CHECK(store.unregisterReachabilityListener(listenerId) == removed);
      FUZZ_CHECK(cache.unregisterReachabilityListener(listenerId) == removed);
      break;
    }
    case kNotify: {
      const std::string endpointId = pick(input, kEndpointIds);
      const std::string entityId = pick(input, kEntityIds);
      const bool reachable = input.ConsumeBool();
      calls.clear();
      store.notifyReachabilityListeners(endpointId, entityId, reachable);
      Calls expected;
      for (const std::string& listenerId : storeModel.listeners) {
        expected.emplace_back(listenerId, endpointId, entityId, reachable);
      }
      std::sort(calls.begin(), calls.end());
      FUZZ_CHECK(calls == expected);
      break;
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  FuzzedDataProvider input(data, size);
  const unsigned int capacity = input.ConsumeIntegralInRange(0U, 5U);
  Calls calls;  // outlives both: their listeners record here
  CacheCore store(capacity);
  const ReachabilityCache::Config config{capacity, std::chrono::seconds(1), false, nullptr};
  ReachabilityCache cache(nullptr, config);
  Model storeModel(capacity);
  Model cacheModel(capacity);
  for (int step = 0; step < 32 && input.remaining_bytes() > 0; ++step) {
    apply(input, store, storeModel, cache, cacheModel, calls);
    FUZZ_CHECK(store.size() == storeModel.entities.size());
    FUZZ_CHECK(cache.size() == cacheModel.entities.size());
  }
  checkContents(store, storeModel);
  checkContents(cache, cacheModel);
  return 0;
}
