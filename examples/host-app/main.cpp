// A host of the reachability cache: it names the endpoints to track, lets the
// library's checker ask the process-wide appliance driver (the simulated home
// on a Linux host), listens for reachability changes, follows entities for its
// UI, and tears the cache down while the driver still owes it an answer.
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "applianceDriver/ApplianceDriver.h"
#include "applianceDriver/SimulatedApplianceDriver.h"
#include "reachabilityCache/ApplianceDriverReachabilityChecker.h"
#include "reachabilityCache/EntityReachabilityTracker.h"
#include "reachabilityCache/ICHRProvider.h"
#include "reachabilityCache/IReachabilityChecker.h"
#include "reachabilityCache/ReachabilityCache.h"
#include "reachabilityCache/ReachabilityCheckerGuard.h"

namespace {

using veranda::applianceDriver::ApplianceDriverType;
using veranda::applianceDriver::DiscoveredDevice;
using veranda::reachabilityCache::ApplianceDriverReachabilityChecker;
using veranda::reachabilityCache::EndpointInfo;
using veranda::reachabilityCache::EntityReachabilityTracker;
using veranda::reachabilityCache::ICHRProvider;
using veranda::reachabilityCache::IReachabilityChecker;
using veranda::reachabilityCache::ReachabilityCache;
using veranda::reachabilityCache::ReachabilityCheckerGuard;

constexpr auto WAIT_LIMIT = std::chrono::seconds(10);

// The host's list of endpoints to track.
class HomeProvider : public ICHRProvider {
 public:
  std::vector<EndpointInfo> queryEndpoints() override {
    return {
        EndpointInfo("lamp-1", "kitchen-lamp", "PROT_ZIGBEE-ADAPTER", {{"PowerController", ""}}),
        EndpointInfo("plug-1", "desk-plug", "PROT_WIFI-ADAPTER", {{"PowerController", ""}})};
  }
};

// Prints what the cache announces and lets main() wait for a number of
// announcements.
class PrintingListener {
 public:
  ReachabilityCache::ReachabilityListener callback() {
    return [this](const std::string& endpointId, const std::string& entityId, bool isReachable) {
      std::printf("heard: %s (entity %s) is %s\n", endpointId.c_str(), entityId.c_str(),
                  isReachable ? "reachable" : "unreachable");
      std::fflush(stdout);
      std::lock_guard<std::mutex> lock(mutex_);
      ++heard_;
      changed_.notify_all();
    };
  }

  bool waitForCount(std::size_t count) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, WAIT_LIMIT, [&] { return heard_ >= count; });
  }

  std::size_t count() {
    std::lock_guard<std::mutex> lock(mutex_);
    return heard_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::size_t heard_ = 0;
};

DiscoveredDevice device(const std::string& endpointId, const std::string& entityId,
                        const std::string& adapterName) {
  DiscoveredDevice result;
  result.endpointId = endpointId;
  result.entityId = entityId;
  result.adapterName = adapterName;
  result.isReachable = true;
  result.capabilities = {{"PowerController", ""}};
  result.driverType = ApplianceDriverType::NATIVE;
  return result;
}

// Waits until the driver owes an answer to a check.
bool waitForPendingAnswer(veranda::applianceDriver::SimulatedApplianceDriver& home) {
  const auto deadline = std::chrono::steady_clock::now() + WAIT_LIMIT;
  while (home.pendingAnswers() == 0) {
    if (std::chrono::steady_clock::now() > deadline) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

int run() {
  auto& home = veranda::applianceDriver::getSimulatedApplianceDriver();
  home.upsertDevice(device("lamp-1", "kitchen-lamp", "PROT_ZIGBEE-ADAPTER"));
  home.upsertDevice(device("plug-1", "desk-plug", "PROT_WIFI-ADAPTER"));

  HomeProvider provider;
  PrintingListener listener;
  // The guard lets the host destroy the cache while a check is under way.
  auto checker = std::make_shared<ApplianceDriverReachabilityChecker>();
  const std::weak_ptr<IReachabilityChecker> checkerAlive = checker;
  auto guard = std::make_shared<ReachabilityCheckerGuard>(std::move(checker));

  int status = 0;
  auto fail = [&status](const char* what) {
    std::fprintf(stderr, "host-app: %s\n", what);
    status = 1;
  };
  // A cycle every second, so that one is soon under way at teardown.
  auto cache = std::make_unique<ReachabilityCache>(
      &provider, ReachabilityCache::Config{/*maxCacheSize=*/100, std::chrono::seconds(1),
                                           /*enablePeriodicUpdates=*/true, guard});
  cache->registerReachabilityListener("host-app", listener.callback());
  // What the UI shows: one line per change of an entity's reachability.
  auto tracker = std::make_unique<EntityReachabilityTracker>(
      *cache, guard, [](const std::string& entityId, bool reachable) {
        std::printf("ui: %s is now %s\n", entityId.c_str(),
                    reachable ? "reachable" : "unreachable");
        std::fflush(stdout);
      });

  // The first cycle runs a second after construction and finds both devices.
  if (!listener.waitForCount(2)) {
    fail("the first cycle announced nothing in time");
  } else {
    // A connectivity event takes the lamp off the network.
    home.setReachable("lamp-1", false);
    if (!listener.waitForCount(3)) {
      fail("the lamp's connectivity event was not announced");
    }
  }
  std::printf("kitchen-lamp reachable: %s, desk-plug reachable: %s, cached entities: %zu\n",
              cache->isEntityReachable("kitchen-lamp") ? "yes" : "no",
              cache->isEntityReachable("desk-plug") ? "yes" : "no", cache->size());
  if (status == 0 &&
      (cache->isEntityReachable("kitchen-lamp") || !cache->isEntityReachable("desk-plug"))) {
    fail("the cache disagrees with the home");
  }

  // Teardown while the driver still owes the next cycle an answer: close the
  // guard, then drop the cache, the guard and the checker.
  home.setAnswerLatency(std::chrono::milliseconds(300));
  if (!waitForPendingAnswer(home)) {
    fail("no check was pending at teardown");
  }
  tracker.reset();
  guard->close();
  const std::size_t heardAtClose = listener.count();
  cache.reset();
  guard.reset();
  std::printf("teardown done with %zu answer(s) pending; checker kept for them: %s\n",
              home.pendingAnswers(), checkerAlive.expired() ? "no" : "yes");

  // The late answer finds its checker and goes no further.
  if (!home.waitUntilIdle(WAIT_LIMIT)) {
    fail("the driver's late answer never came");
  }
  if (listener.count() != heardAtClose || !checkerAlive.expired()) {
    fail("something reached the cache after close(), or the checker was kept");
  }
  return status;
}

}  // namespace

int main() { return run(); }
