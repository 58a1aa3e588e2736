// Host threads load the store and a facade without refresh while cycles,
// triggers and connectivity events run over a simulated home; the updater is
// torn down with work in flight, then invariants are checked. The printed seed
// replays a run through REACHABILITY_CACHE_STRESS_SEED; the load lasts
// REACHABILITY_CACHE_STRESS_SECONDS (default 2).
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <future>
#include <iostream>
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
using Rng = std::mt19937;
using std::chrono::milliseconds;

const std::string PREFIX = "orbt1.veyra.endpoint.";
constexpr int POLLED = 6;            // driver entities 0-5 change quietly: only checks see it
constexpr int DRIVER_ENTITIES = 12;  // 6-11 change through connectivity events
constexpr int HOST_ENTITIES = 16;    // pushed and removed by the host only
constexpr unsigned int CAPACITY = DRIVER_ENTITIES + 6;
const char* const ADAPTERS[] = {"PROT_ZIGBEE-ADAPTER", "PROT_WIFI-ADAPTER", "PROT_CHIP-ADAPTER",
                                ""};
const CapabilityKey KEYS[] = {{"PowerController", "main"}, {"Brightness", ""}, {"main", "Power"}};

std::string driverEndpoint(int i) { return (i < POLLED ? "pep" : "eep") + std::to_string(i); }
std::string driverEntity(int i) { return (i < POLLED ? "pent" : "eent") + std::to_string(i); }
std::string maybePrefixed(Rng& rng, const std::string& entityId) {
  return rng() % 2 == 0 ? PREFIX + entityId : entityId;
}

// Driver entity `i`'s device, reporting its entity id empty, prefixed or bare.
applianceDriver::DiscoveredDevice device(int i, bool reachable) {
  const std::string reported[] = {"", PREFIX + driverEntity(i), driverEntity(i)};
  const auto type = static_cast<ApplianceDriverType>(i % 2);
  applianceDriver::DiscoveredDevice device{
      driverEndpoint(i), reported[i % 3], ADAPTERS[i % 3], "", reachable, {}, type};
  device.capabilities.insert({KEYS[i % 3].capability, KEYS[i % 3].qualifier});
  return device;
}

// Replaces a polled device quietly or flips an evented one; rarely, a stray event.
void change(applianceDriver::SimulatedApplianceDriver& driver, Rng& rng) {
  const int i = static_cast<int>(rng() % DRIVER_ENTITIES);
  const bool reachable = rng() % 2 == 0;
  if (i < POLLED) {
    driver.removeDevice(driverEndpoint(i));
    driver.upsertDevice(device(i, reachable));
  } else {
    driver.setJsonConnectivityValues(rng() % 2 == 0);
    driver.setReachable(driverEndpoint(i), reachable);
  }
  static const applianceDriver::StateChangeEvent STRAY[] = {
      {"eep6", "Veyra.EndpointHealth", "", "connectivity", "{\"state\":\"OK\"}"},
      {"pep0", "Veyra.PowerController", "", "powerState", "OK"},
      {"ghost-ep", "Veyra.EndpointHealth", "", "connectivity", "OK"}};
  if (rng() % 8 == 0) {
    driver.publishStateChange(STRAY[rng() % 3]);
  }
}

// One host call on `cache`, the store or the facade: a change to a host
// entity (endpoint ids unique per entity), every query about any entity with
// the size sampled, or churn of listeners that re-enter the cache.
template <typename Cache>
void hostStep(Cache& cache, Rng& rng) {
  constexpr bool STORE = std::is_same_v<Cache, CacheCore>;
  const std::string host = "hent" + std::to_string(rng() % HOST_ENTITIES);
  const std::string entityId = maybePrefixed(rng, host);
  const std::string endpointId = host + "-ep" + std::to_string(rng() % 3);
  const unsigned int pick = rng() % 8;
  if (pick < 2) {
    std::vector<CachedEndpoint> batch;
    for (unsigned int n = rng() % 3 + 1; n > 0; --n) {
      batch.emplace_back(host + "-ep" + std::to_string(rng() % 3), maybePrefixed(rng, host),
                         ADAPTERS[rng() % 4], static_cast<ApplianceDriverType>(rng() % 4),
                         CapabilitySet{KEYS[rng() % 3], KEYS[rng() % 3]});
    }
    if constexpr (STORE) {
      for (const CachedEndpoint& endpoint : batch) {
        cache.insertEndpoint(endpoint);
      }
      cache.insertEndpoint(EndpointInfo(endpointId, entityId, ADAPTERS[rng() % 4], {KEYS[0]}));
    } else {
      cache.updateEndpoints(batch);
    }
  } else if (pick == 2) {
    cache.removeEntity(entityId);
  } else if (pick == 3) {
    if constexpr (STORE) {
      rng() % 2 == 0 ? cache.removeEndpoint(entityId, endpointId)
                     : cache.clearEndpointCapabilities(entityId, endpointId);
    } else if (rng() % 4 == 0) {
      cache.invalidate();
    }
  } else if (pick < 6) {
    const int driven = static_cast<int>(rng() % DRIVER_ENTITIES);
    const std::string entity = rng() % 2 == 0 ? entityId : maybePrefixed(rng, driverEntity(driven));
    const std::string endpoint = rng() % 2 == 0 ? endpointId : driverEndpoint(driven);
    const CapabilityKey& key = KEYS[rng() % 3];
    cache.isEntityReachable(entity);
    cache.isCapabilityReachable(entity, key);
    cache.isCapabilityReachableByDriver(entity, key, static_cast<ApplianceDriverType>(rng() % 4));
    cache.getEndpointIdForEntity(entity);
    cache.getEntityIdForEndpoint(endpoint);
    cache.getAdapterName(entity, endpoint);
    cache.getEndpointsForEntity(entity);
    cache.getReachableEndpointsMap();
    if constexpr (!STORE) {
      cache.getPreferredEndpoint(entity, ADAPTERS[rng() % 4]);
    }
    EXPECT_LE(cache.size(), CAPACITY);
  } else if (pick == 6) {
    cache.unregisterReachabilityListener("churn" + std::to_string(rng() % 4));
  } else {
    cache.registerReachabilityListener(
        "churn" + std::to_string(rng() % 4),
        [&cache](const std::string& endpoint, const std::string& entity, bool) {
          cache.getAdapterName(entity, endpoint);
          if (!cache.unregisterReachabilityListener("nested")) {
            cache.registerReachabilityListener("nested", [](const auto&...) {});
          }
        });
  }
}

// Every stored endpoint is listed and indexed under its entity, by its
// normalised id, and (in the store) no index entry outlives its endpoint.
template <typename Cache>
void checkIndexes(const Cache& cache) {
  const auto stored = cache.getReachableEndpointsMap();
  std::size_t endpointCount = 0;
  for (const auto& [entityId, adapters] : stored) {
    EXPECT_NE(entityId.rfind(PREFIX, 0), 0U) << entityId;
    const std::vector<EndpointInfo> listed = cache.getEndpointsForEntity(entityId);
    EXPECT_TRUE(!listed.empty() && listed.size() == adapters.size()) << entityId;
    for (const EndpointInfo& info : listed) {
      EXPECT_TRUE(info.entityId == entityId &&
                  cache.getEntityIdForEndpoint(info.endpointId) == entityId)
          << info.endpointId;
    }
    endpointCount += adapters.size();
  }
  EXPECT_EQ(stored.size(), cache.size());
  if constexpr (std::is_same_v<Cache, CacheCore>) {
    EXPECT_EQ(cache.getCachedEndpointIds().size(), endpointCount);
  }
}

// Listeners hear only of driver entities, with their endpoints. Checks apply on
// the driver's one thread, so a polled entity alternates from reachable to its
// final state; evented ones also change on the updater's worker, in any order.
void checkLedger(const std::vector<test::Notification>& heard, const CacheCore& store) {
  std::vector<int> changes(POLLED, 0);
  for (const test::Notification& notification : heard) {
    int e = 0;
    while (e < DRIVER_ENTITIES && driverEndpoint(e) != notification.endpointId) {
      ++e;
    }
    EXPECT_TRUE(e < DRIVER_ENTITIES && (notification.entityId == driverEntity(e) ||
                                        notification.entityId == PREFIX + driverEntity(e)))
        << notification;
    if (e < POLLED) {
      EXPECT_EQ(notification.isReachable, changes[e]++ % 2 == 0) << notification << changes[e];
    }
  }
  for (int e = 0; e < POLLED; ++e) {
    EXPECT_EQ(store.isEntityReachable(driverEntity(e)), changes[e] % 2 == 1)
        << driverEntity(e) << " after " << changes[e] << " changes";
  }
}

// No ASSERT: an early return would destroy the updater while the driver answers.
TEST(CacheStressTest, RefreshHostLoadAndTeardownKeepTheCacheConsistent) {
  // Read before any thread of the test starts.
  const char* seedText =
      std::getenv("REACHABILITY_CACHE_STRESS_SEED");  // NOLINT(concurrency-mt-unsafe)
  const char* secondsText =
      std::getenv("REACHABILITY_CACHE_STRESS_SECONDS");  // NOLINT(concurrency-mt-unsafe)
  const uint32_t seed =
      seedText != nullptr ? std::strtoul(seedText, nullptr, 10) : std::random_device{}();
  const int seconds = secondsText != nullptr ? std::max(1, std::atoi(secondsText)) : 2;
  std::cout << "stress seed=" << seed << " seconds=" << seconds << std::endl;
  std::promise<void> finished;  // unless set in time, the watchdog aborts: a deadlock?
  std::thread watchdog([limit = 2 * seconds + 60, seed, done = finished.get_future()] {
    if (done.wait_for(std::chrono::seconds(limit)) == std::future_status::timeout) {
      std::cerr << "stress: not finished after " << limit << "s (seed " << seed << "): deadlock?"
                << std::endl;
      std::abort();
    }
  });
  test::LogRecorder::instance().setMode(test::LogCapture::Mode::SILENCE);

  test::RecordingListener ledger;                    // before the store: it listens to the end
  applianceDriver::SimulatedApplianceDriver driver;  // a device per driver entity
  driver.setRandomSeed(seed);
  driver.setAnswerLatency(milliseconds(0), milliseconds(15));
  std::vector<EndpointInfo> tracked;  // the provider's endpoints, then one without a device
  for (int i = 0; i < DRIVER_ENTITIES; ++i) {
    driver.upsertDevice(device(i, true));
    tracked.emplace_back(driverEndpoint(i), (i % 2 == 0 ? PREFIX : "") + driverEntity(i), "",
                         CapabilitySet{});
  }
  test::FakeChrProvider provider;
  provider.setEndpoints(tracked);
  tracked.emplace_back("ghost-ep", "ghost", "", CapabilitySet{});
  auto store = std::make_shared<CacheCore>(CAPACITY);
  ReachabilityCache facade(nullptr, {CAPACITY, std::chrono::seconds(1), false, nullptr});
  EXPECT_TRUE(store->registerReachabilityListener("ledger", ledger.callback()));
  auto updater = std::make_unique<ReachabilityUpdater>(
      store, std::make_shared<ApplianceDriverReachabilityChecker>(driver), &provider);
  EXPECT_TRUE(updater->enableProactiveUpdates());
  updater->startPeriodicUpdates(std::chrono::seconds(1), milliseconds(0));
  // Every device starts reachable: the first cycle brings every driver entity
  // in before the host competes for capacity. Sanitizers slow everything.
  EXPECT_TRUE(ledger.waitForCount(DRIVER_ENTITIES, std::chrono::seconds(20)));

  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  std::vector<std::thread> threads;
  const auto spawn = [&](uint32_t stream, auto step) {
    threads.emplace_back([&end, stream = seed + stream, step]() mutable {
      Rng rng(stream);
      while (std::chrono::steady_clock::now() < end) {
        step(rng);
      }
    });
  };
  for (uint32_t t = 10; t < 14; ++t) {
    spawn(t, [&](Rng& rng) { rng() % 2 == 0 ? hostStep(*store, rng) : hostStep(facade, rng); });
  }
  spawn(40, [&](Rng& rng) {
    change(driver, rng);
    driver.waitUntilIdle(milliseconds(rng() % 4));  // lets events drain
  });
  spawn(50, [&, posted = uint64_t{0}](Rng& rng) mutable {
    std::vector<EndpointInfo> endpoints;  // a part of the tracked ones
    for (const EndpointInfo& endpoint : tracked) {
      if (rng() % 3 == 0) {
        endpoints.push_back(endpoint);
      }
    }
    posted += endpoints.empty() ? 0 : 1;
    updater->triggerUpdate(endpoints);
    // Keeps the queues short: the driver must have taken most triggers and answered.
    while ((posted > driver.acceptedRequests() + 4 || driver.pendingAnswers() > 16) &&
           std::chrono::steady_clock::now() < end) {
      std::this_thread::yield();
    }
    driver.waitUntilIdle(milliseconds(rng() % 4));
  });
  for (std::thread& thread : threads) {
    thread.join();
  }

  // Teardown with work in flight: the driver drops its answers, then the updater goes.
  Rng rng(seed);
  for (int i = 0; i < 4; ++i) {
    updater->triggerUpdate(tracked);
    change(driver, rng);
  }
  std::cout << "stress: answers pending at teardown " << driver.pendingAnswers() << std::endl;
  driver.shutdown();
  updater.reset();

  checkLedger(ledger.notifications(), *store);
  checkIndexes(*store);
  checkIndexes(facade);
  test::LogRecorder::instance().setMode(test::LogCapture::Mode::COLLECT);
  finished.set_value();
  watchdog.join();
}

}  // namespace
}  // namespace veranda::reachabilityCache
