// A host of the reachability cache: it names the endpoints to track, lets one
// ReachabilityCacheOwner assemble the cache over the library's checker and the
// process-wide appliance driver (the simulated home on a Linux host), listens
// for reachability changes, follows entities for its UI, has a device that
// comes back confirmed at once, and tears everything down while the driver
// still owes it an answer.
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "applianceDriver/ApplianceDriver.h"
#include "applianceDriver/SimulatedApplianceDriver.h"
#include "reachabilityCache/ApplianceDriverReachabilityChecker.h"
#include "reachabilityCache/ICHRProvider.h"
#include "reachabilityCache/IReachabilityChecker.h"
#include "reachabilityCache/ReachabilityCache.h"
#include "reachabilityCache/ReachabilityCacheOwner.h"
#include "reachabilityCache/TrackedEntityState.h"

namespace {

using veranda::applianceDriver::ApplianceDriverType;
using veranda::applianceDriver::DiscoveredDevice;
using veranda::reachabilityCache::ApplianceDriverReachabilityChecker;
using veranda::reachabilityCache::EndpointInfo;
using veranda::reachabilityCache::EntityReachability;
using veranda::reachabilityCache::ICHRProvider;
using veranda::reachabilityCache::IReachabilityChecker;
using veranda::reachabilityCache::ReachabilityCache;
using veranda::reachabilityCache::ReachabilityCacheHealth;
using veranda::reachabilityCache::ReachabilityCacheOwner;
using veranda::reachabilityCache::ReachabilityCause;
using veranda::reachabilityCache::TrackedEntityState;

constexpr auto WAIT_LIMIT = std::chrono::seconds(10);
// Far longer than the example runs: only connectivity events and checks the
// host asks for change what the cache knows after the first cycle.
constexpr auto UPDATE_INTERVAL = std::chrono::seconds(60);
// How long the simulated home takes to answer a check.
constexpr auto ANSWER_LATENCY = std::chrono::milliseconds(100);

// The host's list of endpoints to track.
class HomeProvider : public ICHRProvider {
 public:
  std::vector<EndpointInfo> queryEndpoints() override {
    return {
        EndpointInfo("lamp-1", "kitchen-lamp", "PROT_ZIGBEE-ADAPTER", {{"PowerController", ""}}),
        EndpointInfo("plug-1", "desk-plug", "PROT_WIFI-ADAPTER", {{"PowerController", ""}})};
  }
};

// Prints what the cache announces per endpoint and counts it.
class PrintingListener {
 public:
  ReachabilityCache::ReachabilityListener callback() {
    return [this](const std::string& endpointId, const std::string& entityId, bool isReachable) {
      std::printf("heard: %s (entity %s) is %s\n", endpointId.c_str(), entityId.c_str(),
                  isReachable ? "reachable" : "unreachable");
      std::fflush(stdout);
      std::lock_guard<std::mutex> lock(mutex_);
      ++heard_;
    };
  }

  std::size_t count() {
    std::lock_guard<std::mutex> lock(mutex_);
    return heard_;
  }

 private:
  std::mutex mutex_;
  std::size_t heard_ = 0;
};

// What the UI shows per entity, as the tracker tells it; main() waits for it.
class EntityScreen {
 public:
  void show(const std::string& entityId, bool reachable) {
    std::printf("ui: %s is now %s\n", entityId.c_str(), reachable ? "reachable" : "unreachable");
    std::fflush(stdout);
    std::lock_guard<std::mutex> lock(mutex_);
    shown_[entityId] = reachable;
    changed_.notify_all();
  }

  bool waitFor(const std::string& entityId, bool reachable) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, WAIT_LIMIT, [&] {
      const auto entity = shown_.find(entityId);
      return entity != shown_.end() && entity->second == reachable;
    });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::map<std::string, bool> shown_;
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
  home.setAnswerLatency(ANSWER_LATENCY);

  HomeProvider provider;  // declared before the owner: it must outlive it
  PrintingListener listener;
  EntityScreen screen;
  auto checker = std::make_shared<ApplianceDriverReachabilityChecker>();
  const std::weak_ptr<IReachabilityChecker> checkerAlive = checker;

  int status = 0;
  auto fail = [&status](const char* what) {
    std::fprintf(stderr, "host-app: %s\n", what);
    status = 1;
  };
  ReachabilityCacheOwner::Options options;
  options.tracker.onChange = [&screen](const std::string& entityId, bool reachable) {
    screen.show(entityId, reachable);
  };
  options.confirmRecovery = true;
  auto owner = std::make_unique<ReachabilityCacheOwner>(
      &provider,
      ReachabilityCache::Config{/*maxCacheSize=*/100, UPDATE_INTERVAL,
                                /*enablePeriodicUpdates=*/true, checker},
      options);
  owner->cache().registerReachabilityListener("host-app", listener.callback());
  if (!owner->health().hearsConnectivityEvents) {
    fail("the cache does not hear the driver's connectivity events");
  }

  // The first cycle runs a second after construction and finds both devices.
  if (!screen.waitFor("kitchen-lamp", true) || !screen.waitFor("desk-plug", true)) {
    fail("the first cycle found nothing in time");
  }
  // The lamp drops off the network and comes back: the connectivity event
  // that brings it back starts a check at once, which confirms it long
  // before the next cycle.
  home.setReachable("lamp-1", false);
  if (!screen.waitFor("kitchen-lamp", false)) {
    fail("the lamp's connectivity event was not shown");
  }
  const auto back = std::chrono::steady_clock::now();
  home.setReachable("lamp-1", true);
  if (!screen.waitFor("kitchen-lamp", true)) {
    fail("the lamp was not confirmed back");
  }
  const auto confirmedInMs =
      std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - back)
          .count();
  std::printf(
      "kitchen-lamp confirmed back after %lld ms (the driver answers in %lld ms; the next cycle "
      "is %lld s away)\n",
      static_cast<long long>(confirmedInMs), static_cast<long long>(ANSWER_LATENCY.count()),
      static_cast<long long>(UPDATE_INTERVAL.count()));
  // The UI's state tells why: the check the connectivity event started.
  const TrackedEntityState lamp = owner->entityState("kitchen-lamp");
  std::printf("kitchen-lamp: %s (%s)\n", toString(lamp.reachability), toString(lamp.cause));
  if (lamp.reachability != EntityReachability::REACHABLE ||
      lamp.cause != ReachabilityCause::MANUAL_CHECK_RESULT) {
    fail("the lamp's state does not name the confirming check");
  }

  const ReachabilityCacheHealth health = owner->health();
  std::printf("health: events heard %s, cycles answered %llu, checks answered %llu of %llu\n",
              health.hearsConnectivityEvents ? "yes" : "no",
              static_cast<unsigned long long>(health.cyclesAnswered),
              static_cast<unsigned long long>(health.checksAnswered),
              static_cast<unsigned long long>(health.checksStarted));

  // Teardown while the driver still owes a pull-to-refresh its answer: the
  // owner takes everything down in order; the checker lives on for the
  // answer, which goes no further.
  home.setAnswerLatency(std::chrono::milliseconds(300));
  if (owner->refresh("desk-plug") != 1 || !waitForPendingAnswer(home)) {
    fail("no check was pending at teardown");
  }
  const std::size_t heardAtTeardown = listener.count();
  owner.reset();
  checker.reset();
  std::printf("teardown done with %zu answer(s) pending; checker kept for them: %s\n",
              home.pendingAnswers(), checkerAlive.expired() ? "no" : "yes");

  if (!home.waitUntilIdle(WAIT_LIMIT)) {
    fail("the driver's late answer never came");
  }
  if (listener.count() != heardAtTeardown || !checkerAlive.expired()) {
    fail("something reached the cache after teardown, or the checker was kept");
  }
  return status;
}

}  // namespace

int main() { return run(); }
