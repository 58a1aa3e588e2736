// A host of the reachability cache: it names the endpoints to track, lets the
// library's checker ask the process-wide appliance driver (the simulated home
// on a Linux host) and listens for reachability changes.
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "applianceDriver/ApplianceDriver.h"
#include "applianceDriver/SimulatedApplianceDriver.h"
#include "reachabilityCache/ApplianceDriverReachabilityChecker.h"
#include "reachabilityCache/ICHRProvider.h"
#include "reachabilityCache/ReachabilityCache.h"

namespace {

using veranda::applianceDriver::ApplianceDriverType;
using veranda::applianceDriver::DiscoveredDevice;
using veranda::reachabilityCache::ApplianceDriverReachabilityChecker;
using veranda::reachabilityCache::EndpointInfo;
using veranda::reachabilityCache::ICHRProvider;
using veranda::reachabilityCache::ReachabilityCache;

constexpr auto kWaitLimit = std::chrono::seconds(10);

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
    return changed_.wait_for(lock, kWaitLimit, [&] { return heard_ >= count; });
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

int run() {
  auto& home = veranda::applianceDriver::getSimulatedApplianceDriver();
  home.upsertDevice(device("lamp-1", "kitchen-lamp", "PROT_ZIGBEE-ADAPTER"));
  home.upsertDevice(device("plug-1", "desk-plug", "PROT_WIFI-ADAPTER"));

  HomeProvider provider;
  PrintingListener listener;
  ReachabilityCache::Config config{};
  config.maxCacheSize = 100;
  config.updateInterval = std::chrono::seconds(60);
  config.enablePeriodicUpdates = true;
  config.reachabilityChecker = std::make_shared<ApplianceDriverReachabilityChecker>();

  int status = 0;
  {
    ReachabilityCache cache(&provider, config);
    cache.registerReachabilityListener("host-app", listener.callback());

    // The first cycle runs a second after construction and finds both devices.
    if (!listener.waitForCount(2)) {
      std::fprintf(stderr, "host-app: the first cycle announced nothing in time\n");
      status = 1;
    } else {
      // A connectivity event takes the lamp off the network.
      home.setReachable("lamp-1", false);
      if (!listener.waitForCount(3)) {
        std::fprintf(stderr, "host-app: the lamp's connectivity event was not announced\n");
        status = 1;
      }
    }
    std::printf("kitchen-lamp reachable: %s, desk-plug reachable: %s, cached entities: %zu\n",
                cache.isEntityReachable("kitchen-lamp") ? "yes" : "no",
                cache.isEntityReachable("desk-plug") ? "yes" : "no", cache.size());
    if (status == 0 &&
        (cache.isEntityReachable("kitchen-lamp") || !cache.isEntityReachable("desk-plug"))) {
      std::fprintf(stderr, "host-app: the cache disagrees with the home\n");
      status = 1;
    }

    // Teardown: no driver answer may arrive once the cache is gone.
    cache.unregisterReachabilityListener("host-app");
    home.shutdown();
  }
  return status;
}

}  // namespace

int main() { return run(); }
