#include "LogTour.h"

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "reachabilityCache/ApplianceDriverReachabilityChecker.h"
#include "reachabilityCache/EntityReachabilityTracker.h"
#include "reachabilityCache/ReachabilityCache.h"
#include "reachabilityCache/testing/FakeChrProvider.h"
#include "reachabilityCache/testing/FakeReachabilityChecker.h"
#include "reachabilityCache/testing/VirtualTime.h"
#include "store/CacheCore.h"
#include "updater/ReachabilityUpdater.h"

namespace veranda::reachabilityCache::test {
namespace {

using applianceDriver::ApplianceDriverType;
using applianceDriver::DiscoveredDevice;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr const char* ZIGBEE = "PROT_ZIGBEE-ADAPTER";
const CapabilitySet POWER{{"PowerController", "powerState"}};

// A driver that answers as the test says: refusing, or keeping each
// discovery's callback and the subscription's for the test to call.
class ScriptedDriver : public applianceDriver::IUnifiedApplianceDriver {
 public:
  bool getReachableDevices(const std::string& /*requestId*/, DevicesCallback onDevices) override {
    discovery = std::move(onDevices);
    return !refuse;
  }
  bool subscribeStateChanges(const std::vector<std::string>& /*endpointIds*/,
                             const std::string& /*subscriptionId*/,
                             StateChangeCallback onStateChange,
                             SubscriptionErrorCallback /*onSubscriptionError*/) override {
    stateChange = std::move(onStateChange);
    return !refuse;
  }
  bool unsubscribeStateChanges(const std::string& /*subscriptionId*/) override { return !refuse; }

  bool refuse = false;
  DevicesCallback discovery;
  StateChangeCallback stateChange;
};

void writeStoreLines() {
  CacheCore store(1);
  store.insertEndpoint(CachedEndpoint("lamp-1", "", ZIGBEE, ApplianceDriverType::NATIVE, POWER));
  store.insertEndpoint(CachedEndpoint("", "lamp", ZIGBEE, ApplianceDriverType::NATIVE, POWER));
  store.insertEndpoint(
      CachedEndpoint("lamp-1", "lamp", ZIGBEE, ApplianceDriverType::NATIVE, POWER));
  store.insertEndpoint(CachedEndpoint("lamp-2", "lamp", "", ApplianceDriverType::NO_DRIVER, {}));
  store.insertEndpoint(
      CachedEndpoint("lamp-1", "lamp", ZIGBEE, ApplianceDriverType::CONNECTED, {}));
  store.insertEndpoint(CachedEndpoint("plug-1", "plug", ZIGBEE, ApplianceDriverType::NATIVE, {}));

  store.isEntityPresent("lamp");
  store.isEntityReachable("plug");
  store.isEntityReachable("lamp");
  store.isCapabilityReachable("plug", *POWER.begin());
  store.isCapabilityReachable("lamp", *POWER.begin());
  store.isCapabilityReachable("lamp", {"Other", ""});
  store.isCapabilityReachableByDriver("plug", *POWER.begin(), ApplianceDriverType::NATIVE);
  store.isCapabilityReachableByDriver("lamp", *POWER.begin(), ApplianceDriverType::NATIVE);
  store.isCapabilityReachableByDriver("lamp", *POWER.begin(), ApplianceDriverType::CONNECTED);
  store.getEndpointIdForEntity("lamp");
  store.getEndpointIdForEntity("plug");
  store.getEntityIdForEndpoint("lamp-1");
  store.getEntityIdForEndpoint("plug-1");

  ASSERT_TRUE(store.registerReachabilityListener("ui", [](auto&&...) {}));
  store.registerReachabilityListener("ui", [](auto&&...) {});
  store.notifyReachabilityListeners("lamp-1", "lamp", true);
  store.unregisterReachabilityListener("ui");
  store.unregisterReachabilityListener("ui");

  store.clearEndpointCapabilities("plug", "plug-1");
  store.clearEndpointCapabilities("lamp", "lamp-9");
  store.clearEndpointCapabilities("lamp", "lamp-1");
  store.isEntityReachable("lamp");
  store.removeEndpoint("plug", "plug-1");
  store.removeEndpoint("lamp", "lamp-9");
  store.removeEndpoint("lamp", "lamp-2");
  store.removeEndpoint("lamp", "lamp-1");
  store.removeEntity("lamp");
  store.insertEndpoint(CachedEndpoint("plug-1", "plug", ZIGBEE, ApplianceDriverType::NATIVE, {}));
  store.removeEntity("plug");
  store.clear();
}

void writeCheckerLines() {
  ScriptedDriver driver;
  ApplianceDriverReachabilityChecker checker(driver);
  const auto ignore = [](const std::vector<ReachabilityCheckResult>& /*results*/) {};
  const EndpointInfo lamp("lamp-1", "lamp", ZIGBEE, POWER);
  const EndpointInfo plug("plug-1", "plug", "PROT_OTHER-ADAPTER", {});

  checker.checkReachability({}, "manual_1", ignore);
  driver.refuse = true;
  checker.checkReachability({lamp}, "periodic_2", ignore);
  driver.refuse = false;
  checker.checkReachability({lamp, plug}, "periodic_3", ignore);
  DiscoveredDevice lampDevice{
      "lamp-1", "lamp", ZIGBEE, "Lamp", true, {}, ApplianceDriverType::NATIVE};
  DiscoveredDevice plugDevice{"plug-1", "plug", "PROT_OTHER-ADAPTER",       "Plug",
                              true,     {},     ApplianceDriverType::NATIVE};
  driver.discovery({lampDevice, plugDevice});

  const auto onResult = [](const ReachabilityCheckResult& /*result*/) {};
  checker.registerReachabilityUpdateCallback("", onResult);
  checker.registerReachabilityUpdateCallback("reachability_updater_4", nullptr);
  driver.refuse = true;
  checker.registerReachabilityUpdateCallback("reachability_updater_4", onResult);
  driver.refuse = false;
  checker.registerReachabilityUpdateCallback("reachability_updater_4", onResult);
  checker.registerReachabilityUpdateCallback("reachability_updater_4", onResult);
  driver.stateChange({"lamp-1", "Veyra.Brightness", "", "brightness", "40"});
  driver.stateChange({"lamp-1", "Veyra.EndpointHealth", "", "connectivity", "OK"});

  checker.unregisterReachabilityUpdateCallback("");
  checker.unregisterReachabilityUpdateCallback("reachability_updater_9");
  driver.refuse = true;
  checker.unregisterReachabilityUpdateCallback("reachability_updater_4");
  driver.refuse = false;
  checker.unregisterReachabilityUpdateCallback("reachability_updater_4");
}

ReachabilityCheckResult result(const std::string& endpointId, const std::string& entityId,
                               const std::string& adapter, bool reachable) {
  return {endpointId,
          entityId,
          adapter,
          reachable,
          reachable ? POWER : CapabilitySet(),
          reachable ? ApplianceDriverType::NATIVE : ApplianceDriverType::NO_DRIVER};
}

void writeUpdaterLines() {
  VirtualTime time;  // before the updaters, which run on it
  auto store = std::make_shared<CacheCore>(10);
  store->registerReachabilityListener("ui", [](auto&&...) {});
  {
    ReachabilityUpdater withoutProvider(store, nullptr, nullptr);
    withoutProvider.startPeriodicUpdates(seconds(60), milliseconds(0));
    time.runUntilIdle();
    withoutProvider.enableProactiveUpdates();  // no checker to subscribe with
  }

  auto checker = std::make_shared<FakeReachabilityChecker>();
  FakeChrProvider provider;
  ReachabilityUpdater updater(store, checker, &provider);
  updater.startPeriodicUpdates(seconds(60), milliseconds(0));
  time.runUntilIdle();  // the provider names nothing yet

  const EndpointInfo lamp("lamp-1", "lamp", ZIGBEE, POWER);
  provider.setEndpoints({lamp});
  checker->setRefuseChecks(true);
  time.advance(seconds(60));
  updater.triggerUpdate({});
  updater.triggerUpdate({lamp});
  time.runUntilIdle();
  checker->setRefuseChecks(false);

  ASSERT_TRUE(updater.enableProactiveUpdates());
  updater.enableProactiveUpdates();
  time.advance(seconds(60));
  // Every status of a result summary, with and without an adapter.
  ASSERT_TRUE(checker->completeNextCheck({
      result("lamp-1", "lamp", ZIGBEE, true),   // became reachable
      result("lamp-1", "lamp", ZIGBEE, true),   // reachable
      result("ghost", "", ZIGBEE, true),        // refused: no entity id
      result("plug-1", "plug", "", false),      // already unreachable
      result("lamp-9", "lamp", ZIGBEE, false),  // not stored: nothing to clear
      result("lamp-1", "lamp", ZIGBEE, false),  // became unreachable
  }));
  checker->deliverEvent(result("lamp-1", "", "", true));
  time.runUntilIdle();
  updater.disableProactiveUpdates();
  updater.stopPeriodicUpdates();
}

void writeFacadeLines() {
  ReachabilityCache cache(nullptr, {10, seconds(60), false, nullptr});
  cache.getPreferredEndpoint("nobody", ZIGBEE);
}

// The tracker writes only when a host callback throws.
void writeTrackerLines() {
  auto guard =
      std::make_shared<ReachabilityCheckerGuard>(std::make_shared<test::FakeReachabilityChecker>());
  ReachabilityCache cache(nullptr, {10, seconds(60), false, guard});
  EntityReachabilityTracker::Options options;
  options.onChange = [](const std::string& /*entityId*/, bool /*reachable*/) {
    throw std::runtime_error("thrown");
  };
  options.onStateChange = [](const TrackedEntityState& /*state*/) { throw 0; };
  EntityReachabilityTracker tracker(cache, guard, std::move(options));
  tracker.updateEndpoints(
      {CachedEndpoint("lamp-1", "lamp", ZIGBEE, ApplianceDriverType::NATIVE, POWER)});
  tracker.close();
  guard->close();
}

}  // namespace

void writeEveryLine() {
  writeStoreLines();
  writeCheckerLines();
  writeUpdaterLines();
  writeFacadeLines();
  writeTrackerLines();
}

}  // namespace veranda::reachabilityCache::test
