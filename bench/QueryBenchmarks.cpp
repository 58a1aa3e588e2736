// Query cost of the cache against a floor that does only the work the
// queries' behaviour demands: normalise the id, take a mutex, one hash lookup,
// the same log line built with a string stream and handed to the platform log.
// The floor's queries are kept out of line, as the cache's are.
#include <android/log.h>
#include <benchmark/benchmark.h>

#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <unordered_map>
#include <vector>

#include "BenchData.h"
#include "reachabilityCache/ReachabilityCache.h"

namespace veranda::reachabilityCache::bench {
namespace {

using applianceDriver::ApplianceDriverType;

constexpr std::size_t kQueryIdCount = 4096;
constexpr const char* kStoreTag = "ReachabilityCache-CacheCore";

// The least a store answering the same queries with the same log lines must
// do: one map from normalised entity id to the endpoints, each endpoint with
// the union of its capabilities and whether driver type 0 or 1 reported it.
class FloorStore {
 public:
  struct Endpoint {
    std::string endpointId;
    std::string adapterName;
    bool reachedByDriver;
    CapabilitySet capabilities;
  };

  void insert(const EndpointInfo& info, bool reachedByDriver) {
    std::lock_guard<std::mutex> lock(mutex_);
    entities_[normalize(info.entityId)].push_back(
        {info.endpointId, info.adapterName, reachedByDriver, info.capabilities});
  }

  [[gnu::noinline]] bool isEntityReachable(const std::string& entityId) const {
    const std::string id = normalize(entityId);
    std::lock_guard<std::mutex> lock(mutex_);
    const auto found = entities_.find(id);
    std::ostringstream line;
    line << "[isEntityReachable]: entityId=" << id;
    if (found == entities_.end() || found->second.empty()) {
      line << " reachable=false reason=notInCache";
      emit(line);
      return false;
    }
    for (const Endpoint& endpoint : found->second) {
      if (endpoint.reachedByDriver) {
        line << " reachable=true";
        emit(line);
        return true;
      }
    }
    line << " reachable=false reason=noDriverCapabilities";
    emit(line);
    return false;
  }

  [[gnu::noinline]] bool isCapabilityReachable(const std::string& entityId,
                                               const CapabilityKey& key) const {
    const std::string id = normalize(entityId);
    std::lock_guard<std::mutex> lock(mutex_);
    const auto found = entities_.find(id);
    std::ostringstream line;
    line << "[isCapabilityReachable]: entityId=" << id << " capability=" << key.capability;
    if (found == entities_.end() || found->second.empty()) {
      line << " reachable=false reason=entityNotFound";
      emit(line);
      return false;
    }
    for (const Endpoint& endpoint : found->second) {
      if (endpoint.capabilities.count(key) != 0) {
        line << " endpointId=" << endpoint.endpointId << " reachable=true";
        emit(line);
        return true;
      }
    }
    line << " reachable=false reason=capabilityNotFound endpointCount=" << found->second.size();
    emit(line);
    return false;
  }

  [[gnu::noinline]] std::string getEndpointIdForEntity(const std::string& entityId) const {
    const std::string id = normalize(entityId);
    std::lock_guard<std::mutex> lock(mutex_);
    const auto found = entities_.find(id);
    const bool missing = found == entities_.end() || found->second.empty();
    std::string endpointId = missing ? "" : found->second.front().endpointId;
    std::ostringstream line;
    line << "[getEndpointIdForEntity]: entityId=" << id
         << " endpointId=" << (missing ? "notFound" : endpointId.c_str());
    emit(line);
    return endpointId;
  }

  [[gnu::noinline]] std::vector<EndpointInfo> getEndpointsForEntity(
      const std::string& entityId) const {
    const std::string id = normalize(entityId);
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<EndpointInfo> result;
    const auto found = entities_.find(id);
    if (found == entities_.end()) {
      return result;
    }
    result.reserve(found->second.size());
    for (const Endpoint& endpoint : found->second) {
      result.emplace_back(endpoint.endpointId, id, endpoint.adapterName, endpoint.capabilities);
    }
    return result;
  }

 private:
  static std::string normalize(const std::string& entityId) {
    static const std::string prefix = kEntityIdPrefix;
    if (entityId.compare(0, prefix.size(), prefix) == 0) {
      return entityId.substr(prefix.size());
    }
    return entityId;
  }

  static void emit(const std::ostringstream& line) {
    __android_log_print(ANDROID_LOG_DEBUG, kStoreTag, "%s", line.str().c_str());
  }

  mutable std::mutex mutex_;
  std::unordered_map<std::string, std::vector<Endpoint>> entities_;
};

// The cache and the floor filled with the same entities, all reachable
// through driver type 0, and the ids to query them with.
struct Stores {
  explicit Stores(std::size_t entityCount)
      : cache(nullptr,
              ReachabilityCache::Config{entityCount, std::chrono::seconds(3600), false, nullptr}),
        ids(queryIds(entityCount, kQueryIdCount)) {
    std::vector<CachedEndpoint> records;
    for (const EndpointInfo& endpoint : endpointsOfEntities(entityCount)) {
      records.push_back(asCached(endpoint, ApplianceDriverType::NATIVE));
      floor.insert(endpoint, true);
    }
    cache.updateEndpoints(records);
  }

  ReachabilityCache cache;
  FloorStore floor;
  std::vector<std::string> ids;
};

Stores& storesFor(std::size_t entityCount) {
  static std::map<std::size_t, std::unique_ptr<Stores>> stores;
  std::unique_ptr<Stores>& entry = stores[entityCount];
  if (!entry) {
    entry = std::make_unique<Stores>(entityCount);
  }
  return *entry;
}

// Runs `query(stores, id)` over the prepared ids, one query per iteration.
template <typename Query>
void runQueries(benchmark::State& state, Query query) {
  Stores& stores = storesFor(static_cast<std::size_t>(state.range(0)));
  std::size_t next = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(query(stores, stores.ids[next]));
    next = (next + 1) % stores.ids.size();
  }
  state.SetItemsProcessed(state.iterations());
}

void registerPair(const std::string& operation, void (*cacheQuery)(benchmark::State&),
                  void (*floorQuery)(benchmark::State&)) {
  for (const auto& [implementation, function] :
       {std::pair{"cache", cacheQuery}, std::pair{"floor", floorQuery}}) {
    benchmark::RegisterBenchmark(("query/" + operation + "/" + implementation).c_str(), function)
        ->Arg(100)
        ->Arg(10000)
        ->Arg(100000)
        ->Unit(benchmark::kNanosecond);
  }
}

const bool registered = [] {
  registerPair(
      "isEntityReachable",
      [](benchmark::State& state) {
        runQueries(state,
                   [](Stores& s, const std::string& id) { return s.cache.isEntityReachable(id); });
      },
      [](benchmark::State& state) {
        runQueries(state,
                   [](Stores& s, const std::string& id) { return s.floor.isEntityReachable(id); });
      });
  registerPair(
      "isCapabilityReachable",
      [](benchmark::State& state) {
        runQueries(state, [](Stores& s, const std::string& id) {
          return s.cache.isCapabilityReachable(id, queriedCapability());
        });
      },
      [](benchmark::State& state) {
        runQueries(state, [](Stores& s, const std::string& id) {
          return s.floor.isCapabilityReachable(id, queriedCapability());
        });
      });
  registerPair(
      "getEndpointIdForEntity",
      [](benchmark::State& state) {
        runQueries(state, [](Stores& s, const std::string& id) {
          return s.cache.getEndpointIdForEntity(id);
        });
      },
      [](benchmark::State& state) {
        runQueries(state, [](Stores& s, const std::string& id) {
          return s.floor.getEndpointIdForEntity(id);
        });
      });
  registerPair(
      "getEndpointsForEntity",
      [](benchmark::State& state) {
        runQueries(state, [](Stores& s, const std::string& id) {
          return s.cache.getEndpointsForEntity(id);
        });
      },
      [](benchmark::State& state) {
        runQueries(state, [](Stores& s, const std::string& id) {
          return s.floor.getEndpointsForEntity(id);
        });
      });
  return true;
}();

}  // namespace
}  // namespace veranda::reachabilityCache::bench
