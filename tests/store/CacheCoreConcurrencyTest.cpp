#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "StoreTestSupport.h"
#include "store/CacheCore.h"

namespace veranda::reachabilityCache {
namespace {

constexpr unsigned int kCapacity = 6;
constexpr int kEntities = 10;
constexpr int kRounds = 1500;

std::string entityOf(int i) { return "entity" + std::to_string(i % kEntities); }
// Endpoint ids are unique per entity, so the endpoint index names every record.
std::string endpointOf(int i, int j) { return entityOf(i) + "-ep" + std::to_string(j % 3); }

// Drops log lines for the length of a stress run.
class DiscardLogs {
 public:
  DiscardLogs() { LogRecorder::instance().setDiscard(true); }
  ~DiscardLogs() { LogRecorder::instance().setDiscard(false); }
  DiscardLogs(const DiscardLogs&) = delete;
  DiscardLogs& operator=(const DiscardLogs&) = delete;
};

TEST(CacheCoreConcurrencyTest, ParallelUseKeepsCapacityAndIndexesConsistent) {
  const DiscardLogs discard;
  CacheCore store(kCapacity);
  std::atomic<int> steadyCalls{0};
  store.registerReachabilityListener("steady",
                                     [&](const std::string&, const std::string& entityId, bool) {
                                       steadyCalls.fetch_add(1);
                                       store.isEntityReachable(entityId);
                                     });

  std::vector<std::thread> threads;
  // Runs `step` for each round on a thread of its own.
  const auto spawn = [&threads](std::function<void(int)> step) {
    threads.emplace_back([step = std::move(step)] {
      for (int r = 0; r < kRounds; ++r) {
        step(r);
      }
    });
  };
  for (int t = 0; t < 2; ++t) {
    spawn([&store, t](int r) {
      const int i = r * (t + 3) + t;
      const std::string entityId = (r % 2 == 0 ? kPrefix : "") + entityOf(i);
      if (r % 3 == 0) {
        store.insertEndpoint(EndpointInfo(endpointOf(i, r), entityId, "", {kPower}));
      } else {
        store.insertEndpoint(record(endpointOf(i, r), entityId,
                                    static_cast<ApplianceDriverType>(r % 2), {kBrightness}));
      }
    });
  }
  spawn([&store](int r) {
    if (r % 500 == 250) {
      store.clear();
    } else if (r % 3 == 0) {
      store.removeEntity(kPrefix + entityOf(r * 7));
    } else {
      store.removeEndpoint(entityOf(r), endpointOf(r, r));
      store.clearEndpointCapabilities(entityOf(r + 1), endpointOf(r + 1, r));
    }
  });
  spawn([&store](int r) {
    for (const auto& entity : store.getReachableEndpointsMap()) {
      EXPECT_FALSE(entity.second.empty()) << entity.first;
    }
    EXPECT_LE(store.size(), kCapacity);
    store.isCapabilityReachable(entityOf(r), kPower);
    store.getEndpointsForEntity(entityOf(r));
  });
  spawn([&store](int r) {
    const std::string id = "churn" + std::to_string(r % 4);
    store.registerReachabilityListener(
        id, [&store](const std::string& endpointId, const std::string& entityId, bool) {
          store.getAdapterName(entityId, endpointId);
        });
    store.unregisterReachabilityListener(id);
  });
  spawn([&store](int r) {
    store.notifyReachabilityListeners(endpointOf(r, r), entityOf(r), r % 2 == 0);
  });
  for (std::thread& thread : threads) {
    thread.join();
  }

  EXPECT_EQ(steadyCalls.load(), kRounds);
  EXPECT_LE(store.size(), kCapacity);
  const auto stored = store.getReachableEndpointsMap();
  const auto index = store.getCachedEndpointIds();
  std::size_t endpointCount = 0;
  for (const auto& [entityId, endpoints] : stored) {
    EXPECT_EQ(entityId.rfind("entity", 0), 0U) << "prefix survived in " << entityId;
    for (const auto& entry : endpoints) {
      ++endpointCount;
      EXPECT_EQ(entry.first.rfind(entityId + "-ep", 0), 0U) << entry.first;
      EXPECT_EQ(store.getEntityIdForEndpoint(entry.first), entityId);
    }
  }
  EXPECT_EQ(index.size(), endpointCount);
  EXPECT_EQ(stored.size(), store.size());
}

}  // namespace
}  // namespace veranda::reachabilityCache
