// Seeded stress of the store and its updater: host threads query, push and
// remove entities and churn listeners while cycles, manual triggers and
// connectivity events run over a simulated home with random latencies; a
// facade without refresh takes host load and invalidations beside it. The
// updater is torn down with work in flight, then the invariants are checked.
// REACHABILITY_CACHE_STRESS_SEED replays a run (the seed is printed first);
// REACHABILITY_CACHE_STRESS_SECONDS sets the load phase (default 2).
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <future>
#include <iostream>
#include <iterator>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <type_traits>
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
using applianceDriver::StateChangeEvent;
using testing::Notification;
using Clock = std::chrono::steady_clock;
using Rng = std::mt19937;
using std::chrono::milliseconds;

const std::string kPrefix = "orbt1.veyra.endpoint.";
constexpr int kPolled = 6;           // driver entities 0-5 change quietly: only checks see it
constexpr int kDriverEntities = 12;  // 6-11 change through connectivity events
constexpr int kHostEntities = 16;    // pushed and removed by the host only
constexpr unsigned int kCapacity = kDriverEntities + 6;
constexpr milliseconds kWait{20000};  // generous: sanitizers slow everything
const char* const kAdapters[] = {"PROT_ZIGBEE-ADAPTER", "PROT_WIFI-ADAPTER", "PROT_CHIP-ADAPTER",
                                 ""};
const CapabilityKey kKeys[] = {{"PowerController", "main"}, {"Brightness", ""}, {"main", "Power"}};

std::string driverEndpoint(int i) { return (i < kPolled ? "pep" : "eep") + std::to_string(i); }
std::string driverEntity(int i) { return (i < kPolled ? "pent" : "eent") + std::to_string(i); }
std::string hostEntity(Rng& rng) { return "hent" + std::to_string(rng() % kHostEntities); }

std::string maybePrefixed(Rng& rng, const std::string& entityId) {
  return rng() % 2 == 0 ? kPrefix + entityId : entityId;
}
std::string anyEntity(Rng& rng) {
  const std::string id = rng() % 2 == 0 ? driverEntity(rng() % kDriverEntities) : hostEntity(rng);
  return maybePrefixed(rng, id);
}
std::string anyEndpoint(Rng& rng) {
  return rng() % 2 == 0 ? driverEndpoint(rng() % kDriverEntities)
                        : hostEntity(rng) + "-ep" + std::to_string(rng() % 3);
}

// The device behind driver entity `i`. Devices report the entity id empty
// (the requested one counts), with or without the prefix.
DiscoveredDevice device(int i, bool reachable) {
  const std::string reported[] = {"", kPrefix + driverEntity(i), driverEntity(i)};
  DiscoveredDevice device{driverEndpoint(i),
                          reported[i % 3],
                          kAdapters[i % 3],
                          "",
                          reachable,
                          {},
                          static_cast<ApplianceDriverType>(i % 2)};
  device.capabilities.insert({kKeys[i % 3].capability, kKeys[i % 3].qualifier});
  return device;
}

// The simulated home: a device per driver entity, the provider naming every
// one of them, and the checker over the driver.
struct Home {
  explicit Home(uint32_t seed) {
    driver.setRandomSeed(seed);
    driver.setAnswerLatency(milliseconds(0), milliseconds(15));
    for (int i = 0; i < kDriverEntities; ++i) {
      driver.upsertDevice(device(i, true));
      tracked.emplace_back(driverEndpoint(i), (i % 2 == 0 ? kPrefix : "") + driverEntity(i), "",
                           CapabilitySet{});
    }
    provider.setEndpoints(tracked);
    tracked.emplace_back("ghost-ep", "ghost", "", CapabilitySet{});  // no device behind it
  }

  // Changes one device: polled ones are replaced without an event, evented
  // ones flipped with one; now and then a stray or hand-made event follows.
  void change(Rng& rng) {
    const int i = static_cast<int>(rng() % kDriverEntities);
    const bool reachable = rng() % 2 == 0;
    if (i < kPolled) {
      driver.removeDevice(driverEndpoint(i));
      driver.upsertDevice(device(i, reachable));
    } else {
      driver.setJsonConnectivityValues(rng() % 2 == 0);
      driver.setReachable(driverEndpoint(i), reachable);
    }
    static const StateChangeEvent kStray[] = {
        {"eep6", "Veyra.EndpointHealth", "", "connectivity", "{\"state\":\"OK\"}"},
        {"eep7", "Veyra.EndpointHealth", "", "connectivity", "ok"},
        {"eep8", "Veyra.EndpointHealth", "", "Connectivity", "OK"},
        {"pep0", "Veyra.PowerController", "", "powerState", "OK"},
        {"ghost-ep", "Veyra.EndpointHealth", "", "connectivity", "OK"}};
    if (rng() % 8 == 0) {
      driver.publishStateChange(kStray[rng() % 5]);
    }
  }

  applianceDriver::SimulatedApplianceDriver driver;
  testing::FakeChrProvider provider;
  std::shared_ptr<ApplianceDriverReachabilityChecker> checker =
      std::make_shared<ApplianceDriverReachabilityChecker>(driver);
  std::vector<EndpointInfo> tracked;  // the provider's list and one more
};

// ---- Host operations: host entities only, endpoint ids unique per entity ----

std::vector<CachedEndpoint> hostBatch(Rng& rng) {
  std::vector<CachedEndpoint> batch;
  const std::string entityId = hostEntity(rng);
  for (unsigned int n = rng() % 3 + 1; n > 0; --n) {
    CapabilitySet capabilities;
    std::copy_if(std::begin(kKeys), std::end(kKeys),
                 std::inserter(capabilities, capabilities.end()),
                 [&rng](const CapabilityKey&) { return rng() % 2 == 0; });
    batch.emplace_back(entityId + "-ep" + std::to_string(rng() % 3), maybePrefixed(rng, entityId),
                       kAdapters[rng() % 4], static_cast<ApplianceDriverType>(rng() % 4),
                       std::move(capabilities));
  }
  return batch;
}

void mutate(CacheCore& store, Rng& rng) {
  const std::string entity = hostEntity(rng);
  const std::string entityId = maybePrefixed(rng, entity);
  const std::string endpointId = entity + "-ep" + std::to_string(rng() % 3);
  const unsigned int pick = rng() % 6;
  if (pick < 2) {
    for (const CachedEndpoint& endpoint : hostBatch(rng)) {
      store.insertEndpoint(endpoint);
    }
  } else if (pick == 2) {
    store.insertEndpoint(EndpointInfo(endpointId, entityId, kAdapters[rng() % 4], {kKeys[0]}));
  } else if (pick == 3) {
    store.removeEntity(entityId);
  } else if (pick == 4) {
    store.removeEndpoint(entityId, endpointId);
  } else {
    store.clearEndpointCapabilities(entityId, endpointId);
  }
}

void mutate(ReachabilityCache& cache, Rng& rng) {
  const unsigned int pick = rng() % 16;
  if (pick == 0) {
    cache.invalidate();
  } else if (pick < 5) {
    cache.removeEntity(maybePrefixed(rng, hostEntity(rng)));
  } else if (pick < 9) {
    cache.getPreferredEndpoint(anyEntity(rng), kAdapters[rng() % 4]);
  } else {
    cache.updateEndpoints(hostBatch(rng));
  }
}

// Every query once, about random ids; the size is sampled against the
// capacity.
template <typename Cache>
void query(const Cache& cache, Rng& rng) {
  const std::string entityId = anyEntity(rng);
  const std::string endpointId = anyEndpoint(rng);
  const CapabilityKey& key = kKeys[rng() % 3];
  cache.isEntityReachable(entityId);
  cache.isCapabilityReachable(entityId, key);
  cache.isCapabilityReachableByDriver(entityId, key, static_cast<ApplianceDriverType>(rng() % 4));
  cache.getEndpointIdForEntity(entityId);
  cache.getEntityIdForEndpoint(endpointId);
  cache.getAdapterName(entityId, endpointId);
  cache.getEndpointsForEntity(entityId);
  cache.getReachableEndpointsMap();
  EXPECT_LE(cache.size(), kCapacity);
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

// Every stored endpoint is listed and indexed under its entity, by its
// normalised id, and (in the store) no index entry outlives its endpoint.
template <typename Cache>
void checkIndexes(const Cache& cache) {
  const auto stored = cache.getReachableEndpointsMap();
  std::size_t endpointCount = 0;
  for (const auto& [entityId, adapters] : stored) {
    EXPECT_FALSE(adapters.empty()) << entityId;
    EXPECT_NE(entityId.rfind(kPrefix, 0), 0U) << entityId;
    const std::vector<EndpointInfo> listed = cache.getEndpointsForEntity(entityId);
    EXPECT_EQ(listed.size(), adapters.size()) << entityId;
    for (const EndpointInfo& info : listed) {
      EXPECT_EQ(info.entityId, entityId);
      EXPECT_EQ(cache.getEntityIdForEndpoint(info.endpointId), entityId) << info.endpointId;
    }
    endpointCount += adapters.size();
  }
  EXPECT_EQ(stored.size(), cache.size());
  if constexpr (std::is_same_v<Cache, CacheCore>) {
    EXPECT_EQ(cache.getCachedEndpointIds().size(), endpointCount);
  }
}

// Listeners hear only of driver entities, each with its own endpoint. Check
// results are applied on the driver's one thread, so what was heard of a
// polled entity alternates, starting with reachable, and ends in the store's
// final state. Evented entities also change on the updater's worker,
// concurrently with checks, so their order is free.
void checkLedger(const std::vector<Notification>& heard, const CacheCore& store) {
  std::vector<std::size_t> polledChanges(kPolled, 0);
  std::vector<bool> lastHeard(kPolled, false);
  for (const Notification& notification : heard) {
    const std::string& id = notification.entityId;
    int e = 0;
    while (e < kDriverEntities && driverEntity(e) != id && kPrefix + driverEntity(e) != id) {
      ++e;
    }
    if (e == kDriverEntities) {
      ADD_FAILURE() << "listeners heard of " << id;
      continue;
    }
    EXPECT_EQ(notification.endpointId, driverEndpoint(e)) << id;
    if (e < kPolled) {
      EXPECT_EQ(notification.isReachable, polledChanges[e]++ % 2 == 0)
          << id << " change " << polledChanges[e];
      lastHeard[e] = notification.isReachable;
    }
  }
  for (int e = 0; e < kPolled; ++e) {
    EXPECT_EQ(lastHeard[e], store.isEntityReachable(driverEntity(e)))
        << driverEntity(e) << " after " << polledChanges[e] << " changes";
  }
}

// No ASSERT here: an early return would destroy the updater while the driver
// still answers.
TEST(CacheStressTest, RefreshHostLoadAndTeardownKeepTheCacheConsistent) {
  const char* seedText = std::getenv("REACHABILITY_CACHE_STRESS_SEED");
  const char* secondsText = std::getenv("REACHABILITY_CACHE_STRESS_SECONDS");
  const uint32_t seed = seedText != nullptr
                            ? static_cast<uint32_t>(std::strtoul(seedText, nullptr, 10))
                            : std::random_device{}();
  const int seconds = secondsText != nullptr ? std::max(1, std::atoi(secondsText)) : 2;
  std::cout << "stress seed=" << seed << " seconds=" << seconds << std::endl;
  SCOPED_TRACE("REACHABILITY_CACHE_STRESS_SEED=" + std::to_string(seed));
  // Aborts when the run is not over in time, so that a deadlock fails visibly.
  std::promise<void> finished;
  std::thread watchdog([limit = 2 * seconds + 60, seed, done = finished.get_future()] {
    if (done.wait_for(std::chrono::seconds(limit)) == std::future_status::timeout) {
      std::fprintf(stderr, "stress: not finished after %ds (seed %u): deadlock?\n", limit, seed);
      std::abort();
    }
  });
  testing::LogRecorder::instance().setDiscard(true);

  // Declared before the caches: their listeners refer to these to the end.
  std::atomic<uint64_t> churnHeard{0};
  testing::RecordingListener ledger;
  Home home(seed);
  auto store = std::make_shared<CacheCore>(kCapacity);
  ReachabilityCache facade(nullptr, {kCapacity, std::chrono::seconds(1), false, nullptr});
  EXPECT_TRUE(store->registerReachabilityListener("ledger", ledger.callback()));
  auto updater = std::make_unique<ReachabilityUpdater>(store, home.checker, &home.provider);
  EXPECT_TRUE(updater->enableProactiveUpdates());
  updater->startPeriodicUpdates(std::chrono::seconds(1), milliseconds(0));
  // Every device starts reachable: the first cycle brings every driver
  // entity in before the host competes for capacity.
  EXPECT_TRUE(ledger.waitForCount(kDriverEntities, kWait));

  const Clock::time_point end = Clock::now() + std::chrono::seconds(seconds);
  std::vector<std::thread> threads;
  const auto spawn = [&](uint32_t stream, std::function<void(Rng&)> step) {
    threads.emplace_back([&end, streamSeed = seed + stream, step = std::move(step)] {
      Rng rng(streamSeed);
      while (Clock::now() < end) {
        step(rng);
      }
    });
  };
  for (uint32_t t = 10; t < 12; ++t) {
    spawn(t, [&](Rng& rng) { rng() % 2 == 0 ? mutate(*store, rng) : mutate(facade, rng); });
  }
  spawn(20, [&](Rng& rng) { rng() % 2 == 0 ? query(*store, rng) : query(facade, rng); });
  spawn(30, [&](Rng& rng) {
    rng() % 2 == 0 ? churnListeners(*store, rng, churnHeard)
                   : churnListeners(facade, rng, churnHeard);
  });
  spawn(40, [&](Rng& rng) {
    home.change(rng);
    home.driver.waitUntilIdle(milliseconds(rng() % 4));  // lets events drain
  });
  spawn(50, [&, posted = uint64_t{0}](Rng& rng) mutable {
    std::vector<EndpointInfo> endpoints;  // a part of the tracked ones
    std::copy_if(home.tracked.begin(), home.tracked.end(), std::back_inserter(endpoints),
                 [&rng](const EndpointInfo&) { return rng() % 3 == 0; });
    posted += endpoints.empty() ? 0 : 1;
    updater->triggerUpdate(endpoints);
    // Keeps the queues short: most triggers must have reached the driver, and
    // most of its answers been delivered, before the next one.
    while ((posted > home.driver.acceptedRequests() + 4 || home.driver.pendingAnswers() > 16) &&
           Clock::now() < end) {
      std::this_thread::yield();
    }
    home.driver.waitUntilIdle(milliseconds(rng() % 4));
  });
  for (std::thread& thread : threads) {
    thread.join();
  }

  // Teardown with answers pending in the driver and tasks queued on the
  // updater's worker: the driver drops its answers first, then the updater
  // goes. Polled entities no longer change after that.
  Rng rng(seed);
  for (int i = 0; i < 4; ++i) {
    updater->triggerUpdate(home.tracked);
    home.change(rng);
  }
  const std::size_t pendingAtTeardown = home.driver.pendingAnswers();
  home.driver.shutdown();
  updater.reset();

  checkLedger(ledger.notifications(), *store);
  checkIndexes(*store);
  checkIndexes(facade);
  std::cout << "stress: the ledger heard " << ledger.count() << " changes, churned listeners "
            << churnHeard.load() << "; driver requests " << home.driver.acceptedRequests()
            << ", answers pending at teardown " << pendingAtTeardown << std::endl;
  testing::LogRecorder::instance().setDiscard(false);
  finished.set_value();
  watchdog.join();
}

}  // namespace
}  // namespace veranda::reachabilityCache
