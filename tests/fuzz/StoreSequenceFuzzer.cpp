// Plays fuzzed operation sequences on the store and the facade beside a model
// of the store's rules (capacity, entity id normalisation, capability merges,
// the last-writer-wins endpoint index, reachability, the listener table).
#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <tuple>
#include <type_traits>
#include <unordered_map>
#include <utility>
#include <vector>

#include "FuzzCheck.h"
#include "reachabilityCache/ReachabilityCache.h"
#include "store/CacheCore.h"

namespace veranda::reachabilityCache {
namespace {

using applianceDriver::ApplianceDriverType;

const std::string PREFIX = "orbt1.veyra.endpoint.";
// Entity ids are picked behind zero, one or two prefixes.
const std::vector<std::string> ENTITY_IDS = {
    "", "a", "b", "orbt1.veyra.endpoint", "ORBT1.VEYRA.ENDPOINT.a", "x" + PREFIX + "a"};
const std::vector<std::string> ENDPOINT_IDS = {"", "e1", "e2", "e3", "e4"};
const std::vector<std::string> ADAPTERS = {"", "Z", "W", "PROT_WIFI-ADAPTER"};
const CapabilityKey KEYS[] = {{"p", "m"}, {"m", "p"}, {"p", ""}, {"", ""}};
constexpr int KEY_COUNT = 4;
constexpr int DRIVER_TYPES = 4;

CapabilitySet toSet(unsigned int mask) {
  CapabilitySet set;
  for (int i = 0; i < KEY_COUNT; ++i) {
    if (((mask >> i) & 1U) != 0u) {
      set.insert(KEYS[i]);
    }
  }
  return set;
}

std::string normalize(const std::string& entityId) {
  return entityId.rfind(PREFIX, 0) == 0 ? entityId.substr(PREFIX.size()) : entityId;
}

// The model: a row per stored endpoint in insertion order, each driver type's
// capabilities a mask over KEYS. It takes entity ids as callers give them.
struct Row {
  std::string endpointId;
  std::string entityId;  // normalised once stored
  std::string adapterName;
  std::unordered_map<int, unsigned int> drivers;
};

struct Model {
  std::vector<Row> endpointsOf(const std::string& entityId) const {
    std::vector<Row> endpoints;
    for (const Row& row : rows) {
      if (row.entityId == normalize(entityId)) {
        endpoints.push_back(row);
      }
    }
    return endpoints;
  }

  std::vector<Row>::iterator find(const std::string& entityId, const std::string& endpointId) {
    return std::find_if(rows.begin(), rows.end(), [&](const Row& row) {
      return row.entityId == normalize(entityId) && row.endpointId == endpointId;
    });
  }

  std::size_t entityCount() const {
    std::set<std::string> ids;
    for (const Row& row : rows) {
      ids.insert(row.entityId);
    }
    return ids.size();
  }

  // Empty ids are refused as given: the bare prefix makes the entity "".
  bool insert(Row record) {
    const auto stored = find(record.entityId, record.endpointId);
    if (record.entityId.empty() || record.endpointId.empty() ||
        (endpointsOf(record.entityId).empty() && entityCount() >= capacity)) {
      return false;
    }
    record.entityId = normalize(record.entityId);
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
    const auto stored = find(entityId, endpointId);
    if (stored == rows.end()) {
      return false;
    }
    index.erase(endpointId);
    rows.erase(stored);
    return true;
  }

  bool removeEntity(const std::string& entityId) {
    const std::vector<Row> endpoints = endpointsOf(entityId);
    for (const Row& row : endpoints) {
      removeEndpoint(entityId, row.endpointId);
    }
    return !endpoints.empty();
  }

  unsigned int capacity;
  std::vector<Row> rows;
  std::unordered_map<std::string, std::string> index;  // endpoint to entity
};

void checkExternal(const EndpointInfo& info, const Row& row) {
  unsigned int all = 0;
  for (const auto& entry : row.drivers) {
    all |= entry.second;
  }
  FUZZ_CHECK(info.endpointId == row.endpointId && info.entityId == row.entityId);
  FUZZ_CHECK(info.adapterName == row.adapterName && info.capabilities == toSet(all));
}

// Every query about `entityId` and `endpointId` answers as the model does. The
// presence of NATIVE or CONNECTED (0, 1), even without keys, makes an entity reachable.
template <typename Cache>
void checkQueries(const Cache& cache, const Model& model, const std::string& entityId,
                  const std::string& endpointId) {
  const std::vector<Row> endpoints = model.endpointsOf(entityId);
  std::unordered_map<int, unsigned int> keysByType;
  std::string adapter;
  for (const Row& row : endpoints) {
    for (const auto& [type, mask] : row.drivers) {
      keysByType[type] |= mask;
    }
    adapter = row.endpointId == endpointId ? row.adapterName : adapter;
  }
  if constexpr (std::is_same_v<Cache, CacheCore>) {
    FUZZ_CHECK(cache.isEntityPresent(entityId) == !endpoints.empty());
  }
  FUZZ_CHECK(cache.isEntityReachable(entityId) == (keysByType.count(0) + keysByType.count(1) > 0));
  for (int key = 0; key < KEY_COUNT; ++key) {
    bool any = false;
    for (int type = 0; type < DRIVER_TYPES; ++type) {
      const bool held = ((keysByType[type] >> key) & 1U) != 0;
      any = any || held;
      FUZZ_CHECK(cache.isCapabilityReachableByDriver(
                     entityId, KEYS[key], static_cast<ApplianceDriverType>(type)) == held);
    }
    FUZZ_CHECK(cache.isCapabilityReachable(entityId, KEYS[key]) == any);
  }
  FUZZ_CHECK(cache.getEndpointIdForEntity(entityId) ==
             (endpoints.empty() ? "" : endpoints.front().endpointId));
  const auto indexed = model.index.find(endpointId);
  FUZZ_CHECK(cache.getEntityIdForEndpoint(endpointId) ==
             (indexed == model.index.end() ? "" : indexed->second));
  FUZZ_CHECK(cache.getAdapterName(entityId, endpointId) == adapter);
  const std::vector<EndpointInfo> listed = cache.getEndpointsForEntity(entityId);
  FUZZ_CHECK(listed.size() == endpoints.size());
  for (std::size_t i = 0; i < listed.size(); ++i) {
    checkExternal(listed[i], endpoints[i]);
  }
}

// An entry of `table`, or now and then a short string of the input's own.
std::string pick(FuzzedDataProvider& input, const std::vector<std::string>& table) {
  const auto i = input.ConsumeIntegralInRange<std::size_t>(0, table.size());
  return i < table.size() ? table[i] : input.ConsumeRandomLengthString(8);
}

std::string pickEntity(FuzzedDataProvider& input) {
  const int prefixes = input.ConsumeIntegralInRange(0, 2);
  return (prefixes > 0 ? PREFIX : "") + (prefixes > 1 ? PREFIX : "") + pick(input, ENTITY_IDS);
}

// A record with one or two driver types, and the row the model makes of it.
std::pair<CachedEndpoint, Row> pickRecord(FuzzedDataProvider& input) {
  Row row{pick(input, ENDPOINT_IDS), pickEntity(input), pick(input, ADAPTERS), {}};
  CachedEndpoint record(row.endpointId, row.entityId, row.adapterName, {}, {});
  record.driverCapabilities.clear();
  for (int n = input.ConsumeBool() ? 2 : 1; n > 0; --n) {
    const int type = input.ConsumeIntegralInRange(0, DRIVER_TYPES - 1);
    row.drivers[type] = input.ConsumeIntegralInRange(0U, (1U << KEY_COUNT) - 1);
    record.driverCapabilities[static_cast<ApplianceDriverType>(type)] = toSet(row.drivers[type]);
  }
  return {record, row};
}

// Each call a listener heard, with its id and the step it was registered at.
using Calls = std::multiset<std::tuple<std::string, int, std::string, std::string, bool>>;

// Plays the input on `cache`, a store or a facade, skipping what it does not
// offer; its listeners record what they hear in `calls`.
template <typename Cache>
void play(Cache& cache, Calls& calls, const uint8_t* data, std::size_t size) {
  constexpr bool STORE = std::is_same_v<Cache, CacheCore>;
  FuzzedDataProvider input(data, size);
  Model model{input.ConsumeIntegralInRange(0U, 5U), {}, {}};  // the capacity `cache` has
  std::unordered_map<std::string, int> listeners;             // id to the step it came at
  for (int step = 0; step < 32 && input.remaining_bytes() > 0; ++step) {
    const int operation = input.ConsumeIntegralInRange(0, 9);
    const std::string entityId = pickEntity(input);
    const std::string endpointId = pick(input, ENDPOINT_IDS);
    const std::string adapter = pick(input, ADAPTERS);
    if (operation == 0) {  // the store takes records one by one, the facade as one batch
      std::vector<CachedEndpoint> batch;
      for (int n = input.ConsumeIntegralInRange(0, 3); n > 0; --n) {
        const auto [record, row] = pickRecord(input);
        batch.push_back(record);
        const bool stored = model.insert(row);
        if constexpr (STORE) {
          FUZZ_CHECK(cache.insertEndpoint(record) == stored);
        }
      }
      if constexpr (!STORE) {
        cache.updateEndpoints(batch);
      }
    } else if (operation == 1) {  // the capabilities of an EndpointInfo count as NO_DRIVER
      const unsigned int keys = input.ConsumeIntegralInRange(0U, (1U << KEY_COUNT) - 1);
      const EndpointInfo info(endpointId, entityId, adapter, toSet(keys));
      const bool stored = model.insert({endpointId, entityId, adapter, {{2, keys}}});
      if constexpr (STORE) {
        FUZZ_CHECK(cache.insertEndpoint(info) == stored);
      }
      if constexpr (!STORE) {
        cache.updateEndpoints({CachedEndpoint(info)});
      }
    } else if (operation == 2) {
      FUZZ_CHECK(cache.removeEntity(entityId) == model.removeEntity(entityId));
    } else if (operation == 3) {  // clearing keeps the listeners
      if constexpr (STORE) {
        cache.clear();
      }
      if constexpr (!STORE) {
        cache.invalidate();
      }
      model = {model.capacity, {}, {}};
    } else if (operation == 4) {
      checkQueries(cache, model, entityId, endpointId);
    } else if (operation == 5) {  // listener ids are drawn like endpoint ids
      const auto record = [&calls, id = endpointId, step](const auto& endpoint, const auto& entity,
                                                          bool reachable) {
        calls.emplace(id, step, endpoint, entity, reachable);
      };
      FUZZ_CHECK(cache.registerReachabilityListener(endpointId, record) ==
                 listeners.emplace(endpointId, step).second);  // the first callback stays
    } else if (operation == 6) {
      FUZZ_CHECK(cache.unregisterReachabilityListener(endpointId) == listeners.erase(endpointId));
    } else if constexpr (STORE) {
      if (operation == 7) {
        FUZZ_CHECK(cache.removeEndpoint(entityId, endpointId) ==
                   model.removeEndpoint(entityId, endpointId));
      } else if (operation == 8) {  // the endpoint stays, without any driver type
        const auto stored = model.find(entityId, endpointId);
        const bool found = stored != model.rows.end();
        if (found) {
          stored->drivers.clear();
        }
        FUZZ_CHECK(cache.clearEndpointCapabilities(entityId, endpointId) == found);
      } else {  // every listener once, in any order
        const bool reachable = input.ConsumeBool();
        calls.clear();
        cache.notifyReachabilityListeners(endpointId, entityId, reachable);
        Calls expected;
        for (const auto& [id, since] : listeners) {
          expected.emplace(id, since, endpointId, entityId, reachable);
        }
        FUZZ_CHECK(calls == expected);
      }
    } else {  // the first endpoint of the preferred adapter, else the first, else none
      const std::vector<Row> endpoints = model.endpointsOf(entityId);
      auto expected = std::find_if(endpoints.begin(), endpoints.end(),
                                   [&](const Row& row) { return row.adapterName == adapter; });
      expected = expected == endpoints.end() ? endpoints.begin() : expected;
      checkExternal(cache.getPreferredEndpoint(entityId, adapter),
                    endpoints.empty() ? Row() : *expected);
    }
    FUZZ_CHECK(cache.size() == model.entityCount());
    if constexpr (STORE) {
      FUZZ_CHECK(cache.getCachedEndpointIds() == model.index);
      FUZZ_CHECK(cache.isFull() == (model.entityCount() >= model.capacity));
    }
  }
  // At the end, every stored endpoint and the contents agree with the model.
  decltype(cache.getReachableEndpointsMap()) expected;
  for (const Row& row : model.rows) {
    expected[row.entityId][row.endpointId] = row.adapterName;
    checkQueries(cache, model, row.entityId, row.endpointId);
  }
  FUZZ_CHECK(cache.getReachableEndpointsMap() == expected);
}

}  // namespace

// NOLINTNEXTLINE(readability-identifier-naming): the name libFuzzer calls.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  const unsigned int capacity = FuzzedDataProvider(data, size).ConsumeIntegralInRange(0U, 5U);
  Calls calls;  // declared first: the listeners of both caches record here
  CacheCore store(capacity);
  ReachabilityCache cache(nullptr, {capacity, std::chrono::seconds(1), false, nullptr});
  play(store, calls, data, size);
  play(cache, calls, data, size);
  return 0;
}

}  // namespace veranda::reachabilityCache
