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
#include <iterator>
#include <map>
#include <set>
#include <string>
#include <tuple>
#include <type_traits>
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
const CapabilityKey kKeys[] = {{"p", "m"}, {"m", "p"}, {"p", ""}, {"", ""}};
constexpr int kKeyCount = 4;
constexpr int kDriverTypes = 4;

// The model keeps capabilities as bit masks over kKeys.
using Drivers = std::map<int, unsigned int>;  // driver type to its capabilities

CapabilitySet toSet(unsigned int mask) {
  CapabilitySet set;
  for (int i = 0; i < kKeyCount; ++i) {
    if ((mask >> i) & 1U) {
      set.insert(kKeys[i]);
    }
  }
  return set;
}

// ---- The reference model: one row per stored endpoint, in insertion order ----

struct Row {
  std::string entityId;  // normalised once stored
  std::string endpointId;
  std::string adapterName;
  Drivers drivers;
};

struct Model {
  static std::string normalize(const std::string& entityId) {
    const bool prefixed = entityId.compare(0, kPrefix.size(), kPrefix) == 0;
    return prefixed ? entityId.substr(kPrefix.size()) : entityId;
  }

  // The rows of an entity, found by its normalised id.
  std::vector<Row> endpointsOf(const std::string& id) const {
    std::vector<Row> endpoints;
    std::copy_if(rows.begin(), rows.end(), std::back_inserter(endpoints),
                 [&](const Row& row) { return row.entityId == id; });
    return endpoints;
  }

  std::vector<Row>::iterator find(const std::string& id, const std::string& endpointId) {
    return std::find_if(rows.begin(), rows.end(), [&](const Row& row) {
      return row.entityId == id && row.endpointId == endpointId;
    });
  }

  std::set<std::string> entities() const {
    std::set<std::string> ids;
    for (const Row& row : rows) {
      ids.insert(row.entityId);
    }
    return ids;
  }

  // Empty ids are refused as given: the bare prefix makes the entity "".
  bool insert(Row record) {
    if (record.entityId.empty() || record.endpointId.empty()) {
      return false;
    }
    record.entityId = normalize(record.entityId);
    const auto stored = find(record.entityId, record.endpointId);
    if (entities().count(record.entityId) == 0 && entities().size() >= capacity) {
      return false;
    }
    if (stored == rows.end()) {
      rows.push_back(record);
    } else {  // merged: the record's driver types replace the stored ones
      for (const auto& [type, keys] : record.drivers) {
        stored->drivers[type] = keys;
      }
      stored->adapterName = record.adapterName.empty() ? stored->adapterName : record.adapterName;
    }
    index[record.endpointId] = record.entityId;
    return true;
  }

  bool removeEndpoint(const std::string& entityId, const std::string& endpointId) {
    const auto stored = find(normalize(entityId), endpointId);
    if (stored == rows.end()) {
      return false;
    }
    index.erase(endpointId);
    rows.erase(stored);
    return true;
  }

  bool removeEntity(const std::string& entityId) {
    const std::vector<Row> endpoints = endpointsOf(normalize(entityId));
    for (const Row& row : endpoints) {
      index.erase(row.endpointId);
      rows.erase(find(row.entityId, row.endpointId));
    }
    return !endpoints.empty();
  }

  bool clearCapabilities(const std::string& entityId, const std::string& endpointId) {
    const auto stored = find(normalize(entityId), endpointId);
    if (stored != rows.end()) {
      stored->drivers.clear();
    }
    return stored != rows.end();
  }

  // Whether an endpoint has driver type `type` (any when -1) holding key
  // number `key` (or, when -1, present at all, even without capabilities).
  bool has(const std::string& entityId, int type, int key) const {
    for (const Row& row : endpointsOf(normalize(entityId))) {
      for (const auto& [driver, mask] : row.drivers) {
        if ((type < 0 || driver == type) && (key < 0 || ((mask >> key) & 1U) != 0)) {
          return true;
        }
      }
    }
    return false;
  }

  unsigned int capacity;
  std::vector<Row> rows;
  std::map<std::string, std::string> index;  // endpoint to entity
  std::set<std::string> listeners;
};

// ---- Comparison with the model ----

void checkExternal(const EndpointInfo& info, const Row& row) {
  unsigned int all = 0;
  for (const auto& entry : row.drivers) {
    all |= entry.second;
  }
  FUZZ_CHECK(info.endpointId == row.endpointId && info.entityId == row.entityId);
  FUZZ_CHECK(info.adapterName == row.adapterName && info.capabilities == toSet(all));
}

// Every query about `entityId` (and `endpointId`) answers as the model does.
// Only driver types 0 and 1 make an entity reachable.
template <typename Cache>
void checkQueries(const Cache& cache, const Model& model, const std::string& entityId,
                  const std::string& endpointId) {
  const std::vector<Row> endpoints = model.endpointsOf(Model::normalize(entityId));
  if constexpr (std::is_same_v<Cache, CacheCore>) {
    FUZZ_CHECK(cache.isEntityPresent(entityId) == !endpoints.empty());
  }
  FUZZ_CHECK(cache.isEntityReachable(entityId) ==
             (model.has(entityId, 0, -1) || model.has(entityId, 1, -1)));
  for (int key = 0; key < kKeyCount; ++key) {
    FUZZ_CHECK(cache.isCapabilityReachable(entityId, kKeys[key]) == model.has(entityId, -1, key));
    for (int type = 0; type < kDriverTypes; ++type) {
      FUZZ_CHECK(cache.isCapabilityReachableByDriver(entityId, kKeys[key],
                                                     static_cast<ApplianceDriverType>(type)) ==
                 model.has(entityId, type, key));
    }
  }
  FUZZ_CHECK(cache.getEndpointIdForEntity(entityId) ==
             (endpoints.empty() ? "" : endpoints.front().endpointId));
  const auto indexed = model.index.find(endpointId);
  FUZZ_CHECK(cache.getEntityIdForEndpoint(endpointId) ==
             (indexed == model.index.end() ? "" : indexed->second));
  std::string adapter;
  for (const Row& row : endpoints) {
    adapter = row.endpointId == endpointId ? row.adapterName : adapter;
  }
  FUZZ_CHECK(cache.getAdapterName(entityId, endpointId) == adapter);
  const std::vector<EndpointInfo> listed = cache.getEndpointsForEntity(entityId);
  FUZZ_CHECK(listed.size() == endpoints.size());
  for (std::size_t i = 0; i < listed.size(); ++i) {
    checkExternal(listed[i], endpoints[i]);
  }
}

// The whole contents agree with the model, and so does every query about
// every stored entity.
template <typename Cache>
void checkContents(const Cache& cache, const Model& model) {
  FUZZ_CHECK(cache.size() == model.entities().size());
  std::map<std::string, std::map<std::string, std::string>> expected;
  std::map<std::string, std::map<std::string, std::string>> stored;
  for (const Row& row : model.rows) {
    expected[row.entityId][row.endpointId] = row.adapterName;
    checkQueries(cache, model, row.entityId, row.endpointId);
  }
  for (const auto& [entityId, adapters] : cache.getReachableEndpointsMap()) {
    stored[entityId] = {adapters.begin(), adapters.end()};
  }
  FUZZ_CHECK(stored == expected);
  if constexpr (std::is_same_v<Cache, CacheCore>) {
    const auto index = cache.getCachedEndpointIds();
    FUZZ_CHECK((std::map<std::string, std::string>(index.begin(), index.end())) == model.index);
    FUZZ_CHECK(cache.isFull() == (model.entities().size() >= model.capacity));
  }
}

// ---- Decoding and applying ----

// An entry of `table`, or now and then a short string of the input's own.
std::string pick(FuzzedDataProvider& input, const std::vector<std::string>& table) {
  const std::size_t i = input.ConsumeIntegralInRange<std::size_t>(0, table.size());
  return i < table.size() ? table[i] : input.ConsumeRandomLengthString(8);
}

unsigned int pickKeys(FuzzedDataProvider& input) {
  return input.ConsumeIntegralInRange(0U, (1U << kKeyCount) - 1);
}

// A record with one or two driver types, as the model sees it.
Row pickRecord(FuzzedDataProvider& input) {
  Row row;
  row.endpointId = pick(input, kEndpointIds);
  row.entityId = pick(input, kEntityIds);
  row.adapterName = pick(input, kAdapters);
  for (int n = input.ConsumeBool() ? 2 : 1; n > 0; --n) {
    const int type = input.ConsumeIntegralInRange(0, kDriverTypes - 1);
    row.drivers[type] = pickKeys(input);
  }
  return row;
}

CachedEndpoint toRecord(const Row& row) {
  CachedEndpoint record(row.endpointId, row.entityId, row.adapterName, {}, {});
  record.driverCapabilities.clear();
  for (const auto& [type, keys] : row.drivers) {
    record.driverCapabilities[static_cast<ApplianceDriverType>(type)] = toSet(keys);
  }
  return record;
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

// The store and the facade, each beside its model.
struct Harness {
  Calls calls;  // declared first: the listeners of both record here
  CacheCore store;
  ReachabilityCache cache;
  Model storeModel;
  Model cacheModel;
};

// Applies one operation to the store and, where it has one, to the facade.
void apply(FuzzedDataProvider& input, Harness& h) {
  const int operation = input.ConsumeIntegralInRange(0, 9);
  if (operation == 0) {  // records one by one to the store, as one batch to the facade
    std::vector<CachedEndpoint> batch;
    for (int n = input.ConsumeIntegralInRange(0, 3); n > 0; --n) {
      const Row row = pickRecord(input);
      batch.push_back(toRecord(row));
      FUZZ_CHECK(h.store.insertEndpoint(batch.back()) == h.storeModel.insert(row));
      h.cacheModel.insert(row);
    }
    h.cache.updateEndpoints(batch);
    return;
  }
  const std::string entityId = pick(input, kEntityIds);
  const std::string endpointId = pick(input, kEndpointIds);
  const std::string adapter = pick(input, kAdapters);
  const std::string listenerId = pick(input, kListenerIds);
  switch (operation) {
    case 1: {  // the capabilities of an EndpointInfo count as driver type 2
      const unsigned int keys = pickKeys(input);
      const EndpointInfo info(endpointId, entityId, adapter, toSet(keys));
      const Row row{entityId, endpointId, adapter, {{2, keys}}};
      FUZZ_CHECK(h.store.insertEndpoint(info) == h.storeModel.insert(row));
      h.cache.updateEndpoints({CachedEndpoint(info)});
      h.cacheModel.insert(row);
      break;
    }
    case 2:
      FUZZ_CHECK(h.store.removeEndpoint(entityId, endpointId) ==
                 h.storeModel.removeEndpoint(entityId, endpointId));
      break;
    case 3:
      FUZZ_CHECK(h.store.removeEntity(entityId) == h.storeModel.removeEntity(entityId));
      FUZZ_CHECK(h.cache.removeEntity(entityId) == h.cacheModel.removeEntity(entityId));
      break;
    case 4:  // clearing keeps the listeners
      h.store.clear();
      h.cache.invalidate();
      h.storeModel = {h.storeModel.capacity, {}, {}, h.storeModel.listeners};
      h.cacheModel = {h.cacheModel.capacity, {}, {}, {}};
      break;
    case 5:
      FUZZ_CHECK(h.store.clearEndpointCapabilities(entityId, endpointId) ==
                 h.storeModel.clearCapabilities(entityId, endpointId));
      break;
    case 6:
      checkQueries(h.store, h.storeModel, entityId, endpointId);
      checkQueries(h.cache, h.cacheModel, entityId, endpointId);
      break;
    case 7: {  // the first endpoint of the preferred adapter, else the first, else none
      const std::vector<Row> endpoints = h.cacheModel.endpointsOf(Model::normalize(entityId));
      auto expected = std::find_if(endpoints.begin(), endpoints.end(),
                                   [&](const Row& row) { return row.adapterName == adapter; });
      expected = expected == endpoints.end() ? endpoints.begin() : expected;
      checkExternal(h.cache.getPreferredEndpoint(entityId, adapter),
                    endpoints.empty() ? Row() : *expected);
      break;
    }
    case 8:  // registration keeps the first callback of an id
      if (input.ConsumeBool()) {
        const bool added = h.storeModel.listeners.insert(listenerId).second;
        FUZZ_CHECK(registerRecorder(h.store, listenerId, h.calls) == added);
        FUZZ_CHECK(registerRecorder(h.cache, listenerId, h.calls) == added);
      } else {
        const bool removed = h.storeModel.listeners.erase(listenerId) != 0;
        FUZZ_CHECK(h.store.unregisterReachabilityListener(listenerId) == removed);
        FUZZ_CHECK(h.cache.unregisterReachabilityListener(listenerId) == removed);
      }
      break;
    default: {  // every listener once, in any order
      const bool reachable = input.ConsumeBool();
      h.calls.clear();
      h.store.notifyReachabilityListeners(endpointId, entityId, reachable);
      Calls expected;
      for (const std::string& id : h.storeModel.listeners) {
        expected.emplace_back(id, endpointId, entityId, reachable);
      }
      std::sort(h.calls.begin(), h.calls.end());
      FUZZ_CHECK(h.calls == expected);
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  FuzzedDataProvider input(data, size);
  const unsigned int capacity = input.ConsumeIntegralInRange(0U, 5U);
  Harness h{{},
            CacheCore(capacity),
            ReachabilityCache(nullptr, {capacity, std::chrono::seconds(1), false, nullptr}),
            {capacity, {}, {}, {}},
            {capacity, {}, {}, {}}};
  for (int step = 0; step < 32 && input.remaining_bytes() > 0; ++step) {
    apply(input, h);
    FUZZ_CHECK(h.store.size() == h.storeModel.entities().size());
    FUZZ_CHECK(h.cache.size() == h.cacheModel.entities().size());
  }
  checkContents(h.store, h.storeModel);
  checkContents(h.cache, h.cacheModel);
  return 0;
}
