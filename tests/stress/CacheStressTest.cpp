// Seeded stress of the cache: host threads query, push and remove entities and
// churn listeners while periodic cycles, manual triggers and connectivity
// events run over simulated homes with random answer latencies; then the
// cache is torn down with work in flight and its invariants are checked.
//
// Two caches run side by side: a store with an updater built directly (so
// that manual triggers can be fired) and a complete ReachabilityCache.
//
// Environment: REACHABILITY_CACHE_STRESS_SEED replays a run (the seed is
// printed at the start); REACHABILITY_CACHE_STRESS_SECONDS sets the length of
// the load phase (default 2).
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "LogRecorder.h"
#include "applianceDriver/SimulatedApplianceDriver.h"
#include "reachabilityCache/ApplianceDriverReachabilityChecker.h"
#include "reachabilityCache/ReachabilityCache.h"
#include "reachabilityCache/testing/FakeChrProvider.h"
#include "reachabilityCache/testing/RecordingListener.h"
#include "store/CacheCore.h"
#include "updater/ReachabilityUpdater.h"

namespace veranda::reachabilityCache {
namespace {

using applianceDriver::ApplianceDriverType;
using applianceDriver::DiscoveredDevice;
using applianceDriver::SimulatedApplianceDriver;
using applianceDriver::StateChangeEvent;
using testing::Notification;
using Clock = std::chrono::steady_clock;
using Rng = std::mt19937;
using std::chrono::milliseconds;

const std::string kPrefix = "orbt1.veyra.endpoint.";
constexpr int kPolled = 6;         // driver entities whose changes only cycles see
constexpr int kEvented = 6;        // driver entities that change through events
constexpr int kHostEntities = 16;  // pushed and removed by the host only
constexpr unsigned int kCapacity = kPolled + kEvented + 6;
constexpr milliseconds kWait{20000};  // generous: sanitizers slow everything
const char* const kAdapters[] = {"PROT_ZIGBEE-ADAPTER", "PROT_WIFI-ADAPTER", "PROT_CHIP-ADAPTER",
                                 ""};
const CapabilityKey kKeys[] = {{"PowerController", "main"}, {"Brightness", ""}, {"main", "Power"}};

struct Settings {
  uint32_t seed;
  int seconds;
};

Settings readSettings() {
  const char* seed = std::getenv("REACHABILITY_CACHE_STRESS_SEED");
  const char* seconds = std::getenv("REACHABILITY_CACHE_STRESS_SECONDS");
  return {seed != nullptr ? static_cast<uint32_t>(std::strtoul(seed, nullptr, 10))
                          : std::random_device{}(),
          seconds != nullptr ? std::max(1, std::atoi(seconds)) : 2};
}

std::string normalized(const std::string& entityId) {
  return entityId.rfind(kPrefix, 0) == 0 ? entityId.substr(kPrefix.size()) : entityId;
}

std::string maybePrefixed(Rng& rng, const std::string& entityId) {
  return rng() % 2 == 0 ? kPrefix + entityId : entityId;
}

// A driver entity: one endpoint behind one device. Polled ones change only
// quietly (seen by checks alone), evented ones by connectivity events.
struct DriverEntity {
  std::string endpointId;
  std::string entityId;
  bool polled;
};

const std::vector<DriverEntity>& driverEntities() {
  static const std::vector<DriverEntity> entities = [] {
    std::vector<DriverEntity> all;
    for (int i = 0; i < kPolled + kEvented; ++i) {
      const bool polled = i < kPolled;
      const std::string n = std::to_string(i);
      all.push_back({(polled ? "pep" : "eep") + n, (polled ? "pent" : "eent") + n, polled});
    }
    return all;
  }();
  return entities;
}

// Aborts when the run is not over in time, so that a deadlock fails visibly.
class Watchdog {
 public:
  Watchdog(std::chrono::seconds limit, uint32_t seed)
      : thread_([this, limit, seed] {
          std::unique_lock<std::mutex> lock(mutex_);
          if (!done_.wait_for(lock, limit, [this] { return finished_; })) {
            std::fprintf(stderr, "stress: not finished after %llds (seed %u): deadlock?\n",
                         static_cast<long long>(limit.count()), seed);
            std::abort();
          }
        }) {}
  ~Watchdog() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      finished_ = true;
    }
    done_.notify_all();
    thread_.join();
  }
  Watchdog(const Watchdog&) = delete;
  Watchdog& operator=(const Watchdog&) = delete;

 private:
  std::mutex mutex_;
  std::condition_variable done_;
  bool finished_ = false;
  std::thread thread_;
};

class DiscardLogs {
 public:
  DiscardLogs() { testing::LogRecorder::instance().setDiscard(true); }
  ~DiscardLogs() { testing::LogRecorder::instance().setDiscard(false); }
  DiscardLogs(const DiscardLogs&) = delete;
  DiscardLogs& operator=(const DiscardLogs&) = delete;
};

// One simulated home: the driver with a device per driver entity, the
// provider naming them all, and the checker over the driver.
class Home {
 public:
  explicit Home(uint32_t seed) {
    driver.setRandomSeed(seed);
    driver.setAnswerLatency(milliseconds(0), milliseconds(15));
    std::vector<EndpointInfo> tracked;
    for (std::size_t i = 0; i < driverEntities().size(); ++i) {
      const DriverEntity& entity = driverEntities()[i];
      // Devices report the entity id empty (the requested one counts), with
      // or without the prefix.
      const std::string reported[] = {"", kPrefix + entity.entityId, entity.entityId};
      devices_.push_back(DiscoveredDevice{entity.endpointId,
                                          reported[i % 3],
                                          kAdapters[i % 3],
                                          "",
                                          true,
                                          {{kKeys[i % 3].capability, kKeys[i % 3].qualifier}},
                                          static_cast<ApplianceDriverType>(i % 2)});
      driver.upsertDevice(devices_.back());
      tracked.emplace_back(entity.endpointId, (i % 2 == 0 ? kPrefix : "") + entity.entityId, "",
                           CapabilitySet{});
    }
    provider.setEndpoints(tracked);
    tracked.emplace_back("ghost-ep", "ghost", "", CapabilitySet{});  // no device behind it
    requestable_ = tracked;
  }

  // Changes one device: polled ones are replaced without an event, evented
  // ones flipped with one; now and then a stray or hand-made event follows.
  void change(Rng& rng) {
    const std::size_t i = rng() % devices_.size();
    DiscoveredDevice& device = devices_[i];
    device.isReachable = rng() % 2 == 0;
    if (driverEntities()[i].polled) {
      driver.removeDevice(device.endpointId);
      driver.upsertDevice(device);
    } else {
      driver.setJsonConnectivityValues(rng() % 2 == 0);
      driver.setReachable(device.endpointId, device.isReachable);
    }
    if (rng() % 8 == 0) {
      static const StateChangeEvent kStray[] = {
          {"eep6", "Veyra.EndpointHealth", "", "connectivity", "{\"state\":\"OK\"}"},
          {"eep7", "Veyra.EndpointHealth", "", "connectivity", "ok"},
          {"eep8", "Veyra.EndpointHealth", "", "Connectivity", "OK"},
          {"pep0", "Veyra.PowerController", "", "powerState", "OK"},
          {"ghost-ep", "Veyra.EndpointHealth", "", "connectivity", "OK"},
      };
      driver.publishStateChange(kStray[rng() % 5]);
    }
  }

  // A random part of the tracked endpoints, now and then with an unknown one.
  std::vector<EndpointInfo> someEndpoints(Rng& rng) const {
    std::vector<EndpointInfo> some;
    for (const EndpointInfo& endpoint : requestable_) {
      if (rng() % 3 == 0) {
        some.push_back(endpoint);
      }
    }
    return some;
  }

  const std::vector<EndpointInfo>& requestable() const { return requestable_; }

  SimulatedApplianceDriver driver;
  testing::FakeChrProvider provider;
  std::shared_ptr<ApplianceDriverReachabilityChecker> checker =
      std::make_shared<ApplianceDriverReachabilityChecker>(driver);

 private:
  std::vector<DiscoveredDevice> devices_;  // touched by one thread at a time
  std::vector<EndpointInfo> requestable_;
};

// ---- Host operations, on the store and on the facade alike ----

std::string hostEntity(Rng& rng) { return "hent" + std::to_string(rng() % kHostEntities); }

std::string anyEntity(Rng& rng) {
  if (rng() % 2 == 0) {
    return maybePrefixed(rng, driverEntities()[rng() % driverEntities().size()].entityId);
  }
  return maybePrefixed(rng, hostEntity(rng));
}

std::string anyEndpoint(Rng& rng) {
  if (rng() % 2 == 0) {
    return driverEntities()[rng() % driverEntities().size()].endpointId;
  }
  return hostEntity(rng) + "-ep" + std::to_string(rng() % 3);
}

// Host entities only: endpoint ids unique per entity, driver types 0 to 3.
std::vector<CachedEndpoint> hostBatch(Rng& rng) {
  std::vector<CachedEndpoint> batch;
  const std::string entityId = hostEntity(rng);
  for (unsigned int n = rng() % 3 + 1; n > 0; --n) {
    CapabilitySet capabilities;
    for (const CapabilityKey& key : kKeys) {
      if (rng() % 2 == 0) {
        capabilities.insert(key);
      }
    }
    batch.emplace_back(entityId + "-ep" + std::to_string(rng() % 3), maybePrefixed(rng, entityId),
                       kAdapters[rng() % 4], static_cast<ApplianceDriverType>(rng() % 4),
                       std::move(capabilities));
  }
  return batch;
}

// What the facade's updateEndpoints does, one locked insertion per record.
void push(CacheCore& store, const std::vector<CachedEndpoint>& batch) {
  for (const CachedEndpoint& endpoint : batch) {
    store.insertEndpoint(endpoint);
  }
}
void push(ReachabilityCache& cache, const std::vector<CachedEndpoint>& batch) {
  cache.updateEndpoints(batch);
}

void ownOperation(CacheCore& store, Rng& rng) {
  const std::string entityId = maybePrefixed(rng, hostEntity(rng));
  const std::string endpointId = normalized(entityId) + "-ep" + std::to_string(rng() % 3);
  switch (rng() % 3) {
    case 0:
      store.removeEndpoint(entityId, endpointId);
      break;
    case 1:
      store.clearEndpointCapabilities(entityId, endpointId);
      break;
    default:
      store.insertEndpoint(EndpointInfo(endpointId, entityId, kAdapters[rng() % 4], {kKeys[0]}));
  }
}
void ownOperation(ReachabilityCache& cache, Rng& rng) {
  cache.getPreferredEndpoint(anyEntity(rng), kAdapters[rng() % 4]);
}

template <typename Cache>
void mutate(Cache& cache, Rng& rng) {
  switch (rng() % 4) {
    case 0:
    case 1:
      push(cache, hostBatch(rng));
      break;
    case 2:
      cache.removeEntity(maybePrefixed(rng, hostEntity(rng)));
      break;
    default:
      ownOperation(cache, rng);
  }
}

template <typename Cache>
void query(const Cache& cache, Rng& rng, std::atomic<std::size_t>& largestSize) {
  const std::string entityId = anyEntity(rng);
  const CapabilityKey& key = kKeys[rng() % 3];
  switch (rng() % 8) {
    case 0:
      cache.isEntityReachable(entityId);
      break;
    case 1:
      cache.isCapabilityReachable(entityId, key);
      break;
    case 2:
      cache.isCapabilityReachableByDriver(entityId, key,
                                          static_cast<ApplianceDriverType>(rng() % 4));
      break;
    case 3:
      cache.getEndpointIdForEntity(entityId);
      break;
    case 4:
      cache.getEntityIdForEndpoint(anyEndpoint(rng));
      break;
    case 5:
      cache.getAdapterName(entityId, anyEndpoint(rng));
      break;
    case 6:
      cache.getEndpointsForEntity(entityId);
      break;
    default:
      cache.getReachableEndpointsMap();
  }
  const std::size_t size = cache.size();
  std::size_t largest = largestSize.load();
  while (size > largest && !largestSize.compare_exchange_weak(largest, size)) {
  }
}

// Registers or removes a listener that re-enters both the store and the
// listener table from inside its callback.
template <typename Cache>
void churnListeners(Cache& cache, Rng& rng, std::atomic<uint64_t>& heard) {
  const std::string listenerId = "churn" + std::to_string(rng() % 4);
  if (rng() % 2 == 0) {
    cache.unregisterReachabilityListener(listenerId);
    return;
  }
  cache.registerReachabilityListener(
      listenerId, [&cache, &heard](const std::string& endpointId, const std::string& entityId,
                                   bool /*isReachable*/) {
        heard.fetch_add(1);
        cache.getAdapterName(entityId, endpointId);
        if (!cache.unregisterReachabilityListener("nested")) {
          cache.registerReachabilityListener("nested",
                                             [](const std::string&, const std::string&, bool) {});
        }
      });
}

// ---- Invariants ----

// Every stored endpoint is listed, indexed under its entity, and entity ids
// are normalised. Returns the number of stored endpoints.
template <typename Cache>
std::size_t checkIndexes(const Cache& cache) {
  const auto stored = cache.getReachableEndpointsMap();
  std::size_t endpointCount = 0;
  for (const auto& [entityId, adapters] : stored) {
    EXPECT_FALSE(adapters.empty()) << entityId;
    EXPECT_NE(entityId.rfind(kPrefix, 0), 0U) << entityId;
    std::map<std::string, std::string> listed;
    for (const EndpointInfo& info : cache.getEndpointsForEntity(entityId)) {
      EXPECT_EQ(info.entityId, entityId);
      listed.emplace(info.endpointId, info.adapterName);
    }
    EXPECT_EQ(listed, (std::map<std::string, std::string>(adapters.begin(), adapters.end())))
        << entityId;
    for (const auto& entry : adapters) {
      EXPECT_EQ(cache.getEntityIdForEndpoint(entry.first), entityId) << entry.first;
      ++endpointCount;
    }
  }
  EXPECT_EQ(stored.size(), cache.size());
  EXPECT_LE(stored.size(), kCapacity);
  return endpointCount;
}

// Listeners hear only of driver entities, each with its own endpoint. For
// polled entities results are applied on the driver's one thread, so what
// listeners heard alternates, starting with reachable, and ends in the
// store's final state. Evented entities are also changed on the updater's
// worker, concurrently with checks, so their order is not checked. Returns
// the number of polled changes heard.
std::size_t checkLedger(const std::vector<Notification>& heard,
                        const std::function<bool(const std::string&)>& finallyReachable) {
  std::map<std::string, std::vector<Notification>> byEntity;
  for (const Notification& notification : heard) {
    byEntity[normalized(notification.entityId)].push_back(notification);
  }
  std::size_t polledChanges = 0;
  for (const DriverEntity& entity : driverEntities()) {
    const std::vector<Notification> changes = byEntity[entity.entityId];
    byEntity.erase(entity.entityId);
    for (std::size_t i = 0; i < changes.size(); ++i) {
      EXPECT_EQ(changes[i].endpointId, entity.endpointId) << entity.entityId;
      if (entity.polled) {
        EXPECT_EQ(changes[i].isReachable, i % 2 == 0) << entity.entityId << " change " << i;
      }
    }
    if (entity.polled) {
      polledChanges += changes.size();
      EXPECT_EQ(!changes.empty() && changes.back().isReachable, finallyReachable(entity.entityId))
          << entity.entityId << " after " << changes.size() << " changes";
    }
  }
  for (const auto& entry : byEntity) {
    ADD_FAILURE() << "listeners heard of " << entry.first;
  }
  return polledChanges;
}

TEST(CacheStressTest, RefreshHostLoadAndTeardownKeepTheCacheConsistent) {
  const Settings settings = readSettings();
  std::cout << "stress seed=" << settings.seed << " seconds=" << settings.seconds << std::endl;
  SCOPED_TRACE("REACHABILITY_CACHE_STRESS_SEED=" + std::to_string(settings.seed));
  const Watchdog watchdog(std::chrono::seconds(2 * settings.seconds + 60), settings.seed);
  const DiscardLogs discard;

  // Declared before the caches: listeners refer to them until the end.
  std::atomic<uint64_t> churnHeard{0};
  std::atomic<std::size_t> largestStoreSize{0};
  std::atomic<std::size_t> largestCacheSize{0};
  testing::RecordingListener storeLedger;
  testing::RecordingListener cacheLedger;

  Home storeHome(settings.seed);
  Home cacheHome(settings.seed + 1);
  auto store = std::make_shared<CacheCore>(kCapacity);
  std::unique_ptr<ReachabilityUpdater> updater;
  std::unique_ptr<ReachabilityCache> cache;
  // However the test ends, the drivers stop answering before the caches go.
  struct ShutDownDriversFirst {
    ~ShutDownDriversFirst() {
      storeHome.driver.shutdown();
      cacheHome.driver.shutdown();
    }
    Home& storeHome;
    Home& cacheHome;
  } shutDownDriversFirst{storeHome, cacheHome};

  ASSERT_TRUE(store->registerReachabilityListener("ledger", storeLedger.callback()));
  updater = std::make_unique<ReachabilityUpdater>(store, storeHome.checker, &storeHome.provider);
  ASSERT_TRUE(updater->enableProactiveUpdates());
  updater->startPeriodicUpdates(std::chrono::seconds(1), milliseconds(0));
  cache = std::make_unique<ReachabilityCache>(
      &cacheHome.provider,
      ReachabilityCache::Config{kCapacity, std::chrono::seconds(1), true, cacheHome.checker});
  ASSERT_TRUE(cache->registerReachabilityListener("ledger", cacheLedger.callback()));

  // Every device starts reachable: the first cycles bring every driver entity
  // in before the host competes for capacity.
  const std::size_t driverCount = driverEntities().size();
  ASSERT_TRUE(storeLedger.waitForCount(driverCount, kWait));
  ASSERT_TRUE(cacheLedger.waitForCount(driverCount, kWait));

  const Clock::time_point end = Clock::now() + std::chrono::seconds(settings.seconds);
  std::vector<std::thread> threads;
  const auto spawn = [&](uint32_t stream, std::function<void(Rng&)> step) {
    threads.emplace_back([&end, seed = settings.seed + stream, step = std::move(step)] {
      Rng rng(seed);
      while (Clock::now() < end) {
        step(rng);
      }
    });
  };
  for (uint32_t t = 10; t < 12; ++t) {
    spawn(t, [&](Rng& rng) { rng() % 2 == 0 ? mutate(*store, rng) : mutate(*cache, rng); });
  }
  spawn(20, [&](Rng& rng) {
    rng() % 2 == 0 ? query(*store, rng, largestStoreSize) : query(*cache, rng, largestCacheSize);
  });
  spawn(30, [&](Rng& rng) {
    rng() % 2 == 0 ? churnListeners(*store, rng, churnHeard)
                   : churnListeners(*cache, rng, churnHeard);
  });
  spawn(40, [&](Rng& rng) {
    Home& home = rng() % 2 == 0 ? storeHome : cacheHome;
    home.change(rng);
    home.driver.waitUntilIdle(milliseconds(rng() % 4));  // lets events drain
  });
  spawn(50, [&, posted = uint64_t{0}](Rng& rng) mutable {
    const std::vector<EndpointInfo> endpoints = storeHome.someEndpoints(rng);
    posted += endpoints.empty() ? 0 : 1;
    updater->triggerUpdate(endpoints);
    // Keeps the queues short: most triggers must have reached the driver, and
    // most of its answers been delivered, before the next one.
    while ((posted > storeHome.driver.acceptedRequests() + 4 ||
            storeHome.driver.pendingAnswers() > 16) &&
           Clock::now() < end) {
      std::this_thread::yield();
    }
    storeHome.driver.waitUntilIdle(milliseconds(rng() % 4));
  });
  for (std::thread& thread : threads) {
    thread.join();
  }

  // Teardown with answers pending in the drivers and tasks queued on the
  // executors: the drivers drop their answers first, then the caches go.
  Rng rng(settings.seed);
  for (int i = 0; i < 4; ++i) {
    updater->triggerUpdate(storeHome.requestable());
    storeHome.change(rng);
    cacheHome.change(rng);
  }
  const std::size_t pendingAtTeardown =
      storeHome.driver.pendingAnswers() + cacheHome.driver.pendingAnswers();
  storeHome.driver.shutdown();
  cacheHome.driver.shutdown();

  // Polled entities no longer change once the driver is down; the facade's
  // own queries answer for its store before it goes. Host entities go first,
  // so that its stale sweep has nothing left to change under the check.
  const std::size_t cachePolledChanges =
      checkLedger(cacheLedger.notifications(),
                  [&](const std::string& id) { return cache->isEntityReachable(id); });
  for (int i = 0; i < kHostEntities; ++i) {
    cache->removeEntity("hent" + std::to_string(i));
  }
  checkIndexes(*cache);
  cache.reset();
  updater.reset();

  const std::size_t storePolledChanges =
      checkLedger(storeLedger.notifications(),
                  [&](const std::string& id) { return store->isEntityReachable(id); });
  const std::size_t storeEndpoints = checkIndexes(*store);
  // No index entry outlives its endpoint.
  const auto stored = store->getReachableEndpointsMap();
  const auto index = store->getCachedEndpointIds();
  EXPECT_EQ(index.size(), storeEndpoints);
  for (const auto& [endpointId, entityId] : index) {
    EXPECT_TRUE(stored.count(entityId) != 0 && stored.at(entityId).count(endpointId) != 0)
        << endpointId << " indexed under " << entityId;
  }
  EXPECT_LE(largestStoreSize.load(), kCapacity);
  EXPECT_LE(largestCacheSize.load(), kCapacity);

  std::cout << "stress: store heard " << storeLedger.count() << " changes (" << storePolledChanges
            << " polled), cache heard " << cacheLedger.count() << " (" << cachePolledChanges
            << " polled), churned listeners heard " << churnHeard.load() << ", driver requests "
            << storeHome.driver.acceptedRequests() << "+" << cacheHome.driver.acceptedRequests()
            << ", answers pending at teardown " << pendingAtTeardown << ", largest sizes "
            << largestStoreSize.load() << "/" << largestCacheSize.load() << " of " << kCapacity
            << std::endl;
}

}  // namespace
}  // namespace veranda::reachabilityCache
