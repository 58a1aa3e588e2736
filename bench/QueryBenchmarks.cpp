// Query cost of the cache against a floor that does only the work the
// queries' behaviour demands: normalise the id, take a mutex, one hash lookup,
// the same log line built with a string stream and written through the
// library's log function. Two lean floors, which normalise without allocating
// and build the line on the stack as the cache now does, tell at 100 000
// entities how much of the cache's time over the least work the stored
// record's layout (a map of driver types per endpoint) explains. The floors'
// queries are kept out of line, as the cache's are.
#include <android/log.h>
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "BenchData.h"
#include "StackLine.h"
#include "diagnostics/LogSchema.h"
#include "diagnostics/LogSink.h"
#include "reachabilityCache/ReachabilityCache.h"

namespace veranda::reachabilityCache::bench {
namespace {

using applianceDriver::ApplianceDriverType;

using namespace logSchema;

constexpr std::size_t QUERY_ID_COUNT = 4096;

// The fixed pieces of the store's query lines, made once from the schema, so
// that a floor appends as many pieces to a line as it always did.
struct QueryLineText {
  const std::string entityReachable = labelThenKey(label::IS_ENTITY_REACHABLE, key::ENTITY_ID);
  const std::string capabilityReachable =
      labelThenKey(label::IS_CAPABILITY_REACHABLE, key::ENTITY_ID);
  const std::string endpointForEntity =
      labelThenKey(label::GET_ENDPOINT_ID_FOR_ENTITY, key::ENTITY_ID);
  const std::string capability = field(key::CAPABILITY);
  const std::string endpointId = field(key::ENDPOINT_ID);
  const std::string reachable = field(key::REACHABLE, value::TRUE_TEXT);
  const std::string notInCache =
      field(key::REACHABLE, value::FALSE_TEXT) + field(key::REASON, reason::NOT_IN_CACHE);
  const std::string noDriverCapabilities =
      field(key::REACHABLE, value::FALSE_TEXT) + field(key::REASON, reason::NO_DRIVER_CAPABILITIES);
  const std::string entityNotFound =
      field(key::REACHABLE, value::FALSE_TEXT) + field(key::REASON, reason::ENTITY_NOT_FOUND);
  const std::string capabilityNotFound = field(key::REACHABLE, value::FALSE_TEXT) +
                                         field(key::REASON, reason::CAPABILITY_NOT_FOUND) +
                                         field(key::ENDPOINT_COUNT);
};
const QueryLineText LINE_TEXT;

// An endpoint as the least store keeps it: the union of its capabilities and
// whether NATIVE or CONNECTED (0, 1) reported it.
struct FlatRecord {
  FlatRecord(const EndpointInfo& info, bool reachedByDriver)
      : endpointId(info.endpointId),
        adapterName(info.adapterName),
        reachedByDriver(reachedByDriver),
        capabilities(info.capabilities) {}

  bool reachable() const { return reachedByDriver; }
  bool has(const CapabilityKey& key) const { return capabilities.count(key) != 0; }
  const CapabilitySet& allCapabilities() const { return capabilities; }

  std::string endpointId;
  std::string adapterName;
  bool reachedByDriver;
  CapabilitySet capabilities;
};

// An endpoint with the stored record's layout: capabilities in a map of
// driver types, which each query looks into.
struct DriverMapRecord {
  DriverMapRecord(const EndpointInfo& info, bool reachedByDriver)
      : endpointId(info.endpointId), adapterName(info.adapterName), driverCapabilities(1) {
    driverCapabilities[reachedByDriver ? ApplianceDriverType::NATIVE
                                       : ApplianceDriverType::NO_DRIVER] = info.capabilities;
  }

  bool reachable() const {
    return driverCapabilities.count(ApplianceDriverType::NATIVE) != 0 ||
           driverCapabilities.count(ApplianceDriverType::CONNECTED) != 0;
  }
  bool has(const CapabilityKey& key) const {
    return std::any_of(driverCapabilities.begin(), driverCapabilities.end(),
                       [&](const auto& entry) { return entry.second.count(key) != 0; });
  }
  const CapabilitySet& allCapabilities() const { return driverCapabilities.begin()->second; }

  std::string endpointId;
  std::string adapterName;
  DriverCapabilities driverCapabilities;
};

// A log line built with a string stream.
class StreamLine {
 public:
  template <typename T>
  StreamLine& operator<<(const T& value) {
    stream_ << value;
    return *this;
  }
  const char* text() {
    text_ = stream_.str();
    return text_.c_str();
  }

 private:
  std::ostringstream stream_;
  std::string text_;
};

// How a floor normalises ids and builds lines: the floor of the goal copies
// the normalised id and builds lines with a string stream; the lean floor
// normalises into a buffer of the thread and builds lines on the stack, as
// the cache now does.
struct StreamFormat {
  using Line = StreamLine;
  static std::string normalize(const std::string& entityId) {
    const std::string_view prefix = ENTITY_ID_PREFIX;
    if (entityId.compare(0, prefix.size(), prefix) == 0) {
      return entityId.substr(prefix.size());
    }
    return entityId;
  }
};

struct LeanFormat {
  using Line = StackLine;
  static const std::string& normalize(const std::string& entityId) {
    const std::string_view prefix = ENTITY_ID_PREFIX;
    thread_local std::string normalized;
    const bool prefixed = entityId.compare(0, prefix.size(), prefix) == 0;
    normalized.assign(entityId, prefixed ? prefix.size() : 0, std::string::npos);
    return normalized;
  }
};

// The least a store answering the same queries with the same log lines must
// do: one map from normalised entity id to the endpoints, kept as `Record`,
// with ids and lines handled as `Format` says.
template <typename Record, typename Format>
class FloorStore {
 public:
  void insert(const EndpointInfo& info, bool reachedByDriver) {
    std::lock_guard<std::mutex> lock(mutex_);
    entities_[std::string(Format::normalize(info.entityId))].emplace_back(info, reachedByDriver);
  }

  [[gnu::noinline]] bool isEntityReachable(const std::string& entityId) const {
    const auto& id = Format::normalize(entityId);
    std::lock_guard<std::mutex> lock(mutex_);
    const auto found = entities_.find(id);
    typename Format::Line line;
    line << LINE_TEXT.entityReachable << id;
    if (found == entities_.end() || found->second.empty()) {
      line << LINE_TEXT.notInCache;
      emit(line);
      return false;
    }
    for (const Record& endpoint : found->second) {
      if (endpoint.reachable()) {
        line << LINE_TEXT.reachable;
        emit(line);
        return true;
      }
    }
    line << LINE_TEXT.noDriverCapabilities;
    emit(line);
    return false;
  }

  [[gnu::noinline]] bool isCapabilityReachable(const std::string& entityId,
                                               const CapabilityKey& key) const {
    const auto& id = Format::normalize(entityId);
    std::lock_guard<std::mutex> lock(mutex_);
    const auto found = entities_.find(id);
    typename Format::Line line;
    line << LINE_TEXT.capabilityReachable << id << LINE_TEXT.capability << key.capability;
    if (found == entities_.end() || found->second.empty()) {
      line << LINE_TEXT.entityNotFound;
      emit(line);
      return false;
    }
    for (const Record& endpoint : found->second) {
      if (endpoint.has(key)) {
        line << LINE_TEXT.endpointId << endpoint.endpointId << LINE_TEXT.reachable;
        emit(line);
        return true;
      }
    }
    line << LINE_TEXT.capabilityNotFound << found->second.size();
    emit(line);
    return false;
  }

  [[gnu::noinline]] std::string getEndpointIdForEntity(const std::string& entityId) const {
    const auto& id = Format::normalize(entityId);
    std::lock_guard<std::mutex> lock(mutex_);
    const auto found = entities_.find(id);
    const bool missing = found == entities_.end() || found->second.empty();
    std::string endpointId = missing ? "" : found->second.front().endpointId;
    typename Format::Line line;
    line << LINE_TEXT.endpointForEntity << id << LINE_TEXT.endpointId
         << (missing ? std::string_view(value::NOT_FOUND) : endpointId);
    emit(line);
    return endpointId;
  }

  [[gnu::noinline]] std::vector<EndpointInfo> getEndpointsForEntity(
      const std::string& entityId) const {
    const auto& id = Format::normalize(entityId);
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<EndpointInfo> result;
    const auto found = entities_.find(id);
    if (found == entities_.end()) {
      return result;
    }
    result.reserve(found->second.size());
    for (const Record& endpoint : found->second) {
      result.emplace_back(endpoint.endpointId, id, endpoint.adapterName,
                          endpoint.allCapabilities());
    }
    return result;
  }

 private:
  static void emit(typename Format::Line& line) {
    writeLogLine(ANDROID_LOG_DEBUG, tag::STORE, line.text());
  }

  mutable std::mutex mutex_;
  std::unordered_map<std::string, std::vector<Record>> entities_;
};

// The cache and the floors filled with the same entities, all reachable
// through NATIVE, and the ids to query them with.
struct Stores {
  explicit Stores(std::size_t entityCount)
      : cache(nullptr,
              ReachabilityCache::Config{entityCount, std::chrono::seconds(3600), false, nullptr}),
        ids(queryIds(entityCount, QUERY_ID_COUNT)) {
    std::vector<CachedEndpoint> records;
    for (const EndpointInfo& endpoint : endpointsOfEntities(entityCount)) {
      records.push_back(asCached(endpoint, ApplianceDriverType::NATIVE));
      floor.insert(endpoint, true);
      leanFloor.insert(endpoint, true);
      leanDriverMapFloor.insert(endpoint, true);
    }
    cache.updateEndpoints(records);
  }

  ReachabilityCache cache;
  FloorStore<FlatRecord, StreamFormat> floor;
  FloorStore<FlatRecord, LeanFormat> leanFloor;
  FloorStore<DriverMapRecord, LeanFormat> leanDriverMapFloor;
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

// The lean floors run where records no longer fit in the processor's caches,
// to tell what the stored record's layout costs there.
constexpr int64_t LEAN_FLOOR_ENTITIES = 100000;

// Long enough for a stable median of five repetitions, short enough for the
// whole suite to run under both allocators in minutes.
constexpr double QUERY_MIN_SECONDS = 0.25;

// Registers `query`, a generic lambda of (store, id), on the cache and the
// floors.
template <typename Query>
void registerQuery(const std::string& operation, Query query) {
  const auto on = [query](auto store) {
    return [query, store](benchmark::State& state) {
      runQueries(state,
                 [&](Stores& stores, const std::string& id) { return query(stores.*store, id); });
    };
  };
  const std::string name = "query/" + operation + "/";
  benchmark::RegisterBenchmark((name + "cache").c_str(), on(&Stores::cache))
      ->Arg(100)
      ->Arg(10000)
      ->Arg(100000)
      ->MinTime(QUERY_MIN_SECONDS)
      ->Unit(benchmark::kNanosecond);
  benchmark::RegisterBenchmark((name + "floor").c_str(), on(&Stores::floor))
      ->Arg(100)
      ->Arg(10000)
      ->Arg(100000)
      ->MinTime(QUERY_MIN_SECONDS)
      ->Unit(benchmark::kNanosecond);
  benchmark::RegisterBenchmark((name + "leanFloor").c_str(), on(&Stores::leanFloor))
      ->Arg(LEAN_FLOOR_ENTITIES)
      ->MinTime(QUERY_MIN_SECONDS)
      ->Unit(benchmark::kNanosecond);
  benchmark::RegisterBenchmark((name + "leanFloorDriverMap").c_str(),
                               on(&Stores::leanDriverMapFloor))
      ->Arg(LEAN_FLOOR_ENTITIES)
      ->MinTime(QUERY_MIN_SECONDS)
      ->Unit(benchmark::kNanosecond);
}

const bool REGISTERED = [] {
  registerQuery("isEntityReachable", [](const auto& store, const std::string& id) {
    return store.isEntityReachable(id);
  });
  registerQuery("isCapabilityReachable", [](const auto& store, const std::string& id) {
    return store.isCapabilityReachable(id, queriedCapability());
  });
  registerQuery("getEndpointIdForEntity", [](const auto& store, const std::string& id) {
    return store.getEndpointIdForEntity(id);
  });
  registerQuery("getEndpointsForEntity", [](const auto& store, const std::string& id) {
    return store.getEndpointsForEntity(id);
  });
  return true;
}();

}  // namespace
}  // namespace veranda::reachabilityCache::bench
