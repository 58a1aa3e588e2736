#include "reachabilityCache/ApplianceDriverReachabilityChecker.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "LogRecorder.h"
#include "applianceDriver/SimulatedApplianceDriver.h"

namespace veranda::reachabilityCache {
namespace {

using applianceDriver::DiscoveredDevice;
using applianceDriver::StateChangeEvent;
using testing::kCheckerTag;
using testing::LogLine;
using testing::LogRecorder;
using Strings = std::vector<std::string>;
using Lines = std::vector<LogLine>;
constexpr auto kNative = applianceDriver::ApplianceDriverType::NATIVE;
constexpr auto kConnected = applianceDriver::ApplianceDriverType::CONNECTED;
const CapabilitySet kPower{{"Power", ""}};
const CapabilitySet kColor{{"Color", "rgb"}};

// Records every call as "<operation> <id>", followed by " registered" when the
// checker holds that id at the time; keeps accepted requests and subscriptions
// until the test answers or fires them, and refuses on demand.
class FakeDriver : public applianceDriver::IUnifiedApplianceDriver {
 public:
  using DevicesCallback = std::function<void(const std::vector<DiscoveredDevice>&)>;
  using EventCallback = std::function<void(const StateChangeEvent&)>;

  bool getReachableDevices(const std::string& requestId, DevicesCallback onDevices) override {
    return call("get", requestId, refuseRequests, [&] { pending.push_back(std::move(onDevices)); });
  }
  bool subscribeStateChanges(const std::vector<std::string>& endpointIds, const std::string& id,
                             EventCallback onStateChange,
                             std::function<void(const std::string&)> onError) override {
    EXPECT_TRUE(endpointIds.empty() && !onError) << "checker subscribes to all, without error hook";
    return call("subscribe", id, refuseSubscriptions,
                [&] { subscriptions[id] = std::move(onStateChange); });
  }
  bool unsubscribeStateChanges(const std::string& id) override {
    return call("unsubscribe", id, refuseUnsubscriptions, [&] { subscriptions.erase(id); });
  }
  // Asks the checker about `id` first: it must not hold its lock while calling.
  bool call(const std::string& operation, const std::string& id, bool refuse,
            const std::function<void()>& accept) {
    const bool registered = checker->isCallbackIdRegistered(id);
    std::lock_guard<std::mutex> lock(mutex);
    calls.push_back(operation + " " + id + (registered ? " registered" : ""));
    if (!refuse) {
      accept();
    }
    return !refuse;
  }

  // Delivers `event` to every subscription, outside the fake's lock.
  void fire(const StateChangeEvent& event) {
    std::unique_lock<std::mutex> lock(mutex);
    std::map<std::string, EventCallback> targets = subscriptions;
    lock.unlock();
    for (auto& entry : targets) {
      entry.second(event);
    }
  }

  std::mutex mutex;
  bool refuseRequests = false, refuseSubscriptions = false, refuseUnsubscriptions = false;
  const ApplianceDriverReachabilityChecker* checker = nullptr;
  Strings calls;
  std::vector<DevicesCallback> pending;
  std::map<std::string, EventCallback> subscriptions;
};

LogLine line(int priority, const std::string& text) { return {priority, kCheckerTag, text}; }

// "endpoint entity adapter reachable [capabilities] type"; results here have at
// most one capability.
std::string describe(const ReachabilityCheckResult& result) {
  std::string text = result.endpointId + " " + result.entityId + " " + result.adapterName +
                     (result.isReachable ? " true [" : " false [");
  for (const auto& key : result.capabilities) {
    text += key.capability + "/" + key.qualifier + ";";
  }
  return text + "] " + std::to_string(static_cast<int>(result.driverType));
}

class CheckerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    driver.checker = &checker;
    LogRecorder::instance().clear();
  }

  // The checker's lines of at least `priority` since the last call; empties the log.
  static Lines takeLines(int priority = 3) {
    Lines found = LogRecorder::instance().linesWithTag(kCheckerTag);
    LogRecorder::instance().clear();
    found.erase(std::remove_if(found.begin(), found.end(),
                               [&](const LogLine& l) { return l.priority < priority; }),
                found.end());
    return found;
  }

  FakeDriver driver;
  ApplianceDriverReachabilityChecker checker{driver};
};

TEST_F(CheckerTest, BatchGivesEachRequestedEndpointOneResultFromSupportedDevicesOnly) {
  const std::vector<EndpointInfo> requested = {{"a", "entA", "PROT_ZIGBEE-ADAPTER", kPower},
                                               {"b", "entB", "PROT_WIFI-ADAPTER", kPower},
                                               {"c", "entC", "PROT_BLE-ADAPTER", kPower},
                                               {"c", "entC2", "PROT_CHIP-ADAPTER", kColor},
                                               {"d", "entD", "PROT_ZIGBEE-ADAPTER", kPower}};
  const std::vector<DiscoveredDevice> devices = {
      {"a", "", "PROT_WIFI-ADAPTER", "lamp", true, {}, kNative},
      {"b", "x", "prot_wifi-adapter", "lamp", true, {}, kNative},
      {"zz", "entZ", "PROT_ZWAVE-ADAPTER", "lamp", true, {}, kNative},
      // The last supported report of "d" wins; its empty fields keep the earlier one's.
      {"d", "entD2", "PROT_BLE_MESH-ADAPTER", "lamp", true, {{"Color", "rgb"}}, kNative},
      {"d", "", "PROT_LOCALSKILLS-ADAPTER", "lamp", false, {}, kConnected},
      {"d", "entX", " PROT_MOCK-ADAPTER ", "lamp", true, {}, kNative}};
  Strings results;
  int calls = 0;
  auto collect = [&](const std::vector<ReachabilityCheckResult>& answer) {
    ++calls;
    for (const auto& result : answer) {
      results.push_back(describe(result));
    }
  };
  EXPECT_TRUE(checker.checkReachability({}, "manual_0", collect));
  EXPECT_EQ(calls, 1);  // at once, without asking the driver
  driver.refuseRequests = true;
  EXPECT_FALSE(checker.checkReachability({requested[0]}, "manual_1", collect));
  driver.refuseRequests = false;
  EXPECT_TRUE(checker.checkReachability(requested, "periodic_7", collect));
  ASSERT_EQ(driver.calls, (Strings{"get manual_1", "get periodic_7"}));
  EXPECT_EQ(calls, 1);
  driver.pending.at(0)(devices);
  EXPECT_EQ(calls, 2);
  std::sort(results.begin(), results.end());
  EXPECT_EQ(results, (Strings{"a entA PROT_WIFI-ADAPTER true [Power/;] 0",
                              "b entB PROT_WIFI-ADAPTER false [Power/;] 2",
                              "c entC2 PROT_CHIP-ADAPTER false [Color/rgb;] 2",
                              "d entD2 PROT_LOCALSKILLS-ADAPTER false [Color/rgb;] 1"}));
  const std::string check = "[checkReachability]: ";
  const std::string unsupported = "[updateResultWithDiscoveredDevice]: endpointId=";
  EXPECT_EQ(
      takeLines(),
      (Lines{line(3, check + "details=requestId=manual_0 count=0"),
             line(3, check + "reason=noEndpointsToCheck"),
             line(3, check + "details=requestId=manual_1 count=1\n   a -> entA"),
             line(6, check + "requestId=manual_1 reason=getReachableDevicesFailed"),
             line(3, check + "details=requestId=periodic_7 count=5\n   a -> entA\n"
                             "   b -> entB\n   c -> entC\n   c -> entC2\n   d -> entD"),
             line(4, check + "requestId=periodic_7 status=requestSent"),
             line(3, unsupported + "b adapterName=prot_wifi-adapter reason=unsupportedAdapter"),
             line(3, unsupported + "d adapterName= PROT_MOCK-ADAPTER  reason=unsupportedAdapter"),
             line(4,
                  "[processDiscoveredDevices]: requestId=periodic_7 deviceCount=6 "
                  "resultCount=4")}));
  for (const char* name :
       {"PROT_ZIGBEE-ADAPTER", "PROT_WIFI-ADAPTER", "PROT_LOCALSKILLS-ADAPTER", "PROT_CHIP-ADAPTER",
        "PROT_BLE-ADAPTER", "PROT_BLE_MESH-ADAPTER", "PROT_MOCK-ADAPTER"}) {
    EXPECT_TRUE(checker.isSupportedAdapter(name)) << name;
  }
}

TEST_F(CheckerTest, IdIsRegisteredOnlyWhileTheDriverHoldsTheSubscription) {
  auto noop = [](const ReachabilityCheckResult&) {};
  const std::string reg = "[registerReachabilityUpdateCallback]: ";
  const std::string unreg = "[unregisterReachabilityUpdateCallback]: ";

  EXPECT_FALSE(checker.registerReachabilityUpdateCallback("", nullptr));
  EXPECT_FALSE(checker.registerReachabilityUpdateCallback("cb", nullptr));
  EXPECT_FALSE(checker.unregisterReachabilityUpdateCallback(""));
  EXPECT_FALSE(checker.unregisterReachabilityUpdateCallback("cb"));
  EXPECT_EQ(
      takeLines(),
      (Lines{
          line(3, reg + "callbackId="), line(6, "[validateCallbackParams]: reason=emptyCallbackId"),
          line(3, reg + "callbackId=cb"), line(6, "[validateCallbackParams]: reason=nullCallback"),
          line(3, unreg + "callbackId="), line(6, unreg + "reason=emptyCallbackId"),
          line(3, unreg + "callbackId=cb"),
          line(5, unreg + "reason=callbackNotFound callbackId=cb")}));

  driver.refuseSubscriptions = true;
  EXPECT_FALSE(checker.registerReachabilityUpdateCallback("cb", noop));
  driver.refuseSubscriptions = false;
  EXPECT_TRUE(checker.registerReachabilityUpdateCallback("cb", noop));
  driver.refuseUnsubscriptions = true;
  EXPECT_FALSE(checker.unregisterReachabilityUpdateCallback("cb"));
  EXPECT_FALSE(checker.registerReachabilityUpdateCallback("cb", noop));
  driver.refuseUnsubscriptions = false;
  EXPECT_TRUE(checker.unregisterReachabilityUpdateCallback("cb"));

  // The id is recorded once the driver accepts and kept until it cancels.
  EXPECT_EQ(driver.calls, (Strings{"subscribe cb", "subscribe cb", "unsubscribe cb registered",
                                   "unsubscribe cb registered"}));
  EXPECT_EQ(takeLines(4), (Lines{line(6, reg + "callbackId=cb reason=subscriptionFailed"),
                                 line(4, reg + "callbackId=cb status=registered"),
                                 line(5, unreg + "callbackId=cb reason=unsubscriptionFailed"),
                                 line(5, reg + "reason=duplicateCallbackId"),
                                 line(4, unreg + "callbackId=cb status=unregistered")}));
}

TEST_F(CheckerTest, OnlyConnectivityEventsReachTheCallback) {
  Strings received;
  ASSERT_TRUE(checker.registerReachabilityUpdateCallback(
      "cb", [&](const ReachabilityCheckResult& result) { received.push_back(describe(result)); }));
  const std::string health = "Veyra.EndpointHealth";
  const std::string label = "[stateChangeCallback]: ";
  takeLines();
  driver.fire({"e0", health, "", "connectivity", "OK"});
  EXPECT_EQ(takeLines(), (Lines{line(3, label + "endpointId=e0 namespace=Veyra.EndpointHealth "
                                                "propertyName=connectivity value=OK"),
                                line(4, label + "endpointId=e0 isReachable=true "
                                                "action=invokingCallback")}));
  driver.fire({"e1", "Veyra.PowerController", "", "connectivity", "OK"});
  EXPECT_EQ(takeLines().back(), line(3, label + "reason=notConnectivityEvent"));
  driver.fire({"e2", health, "", "Connectivity", "OK"});
  driver.fire({"e3", health, "", "connectivity", R"({"value":"OK","since":3})"});
  driver.fire({"e4", health, "", "connectivity", "ok"});
  driver.fire({"e5", health, "", "connectivity", " OK "});
  driver.fire({"e6", health, "", "connectivity", "UNREACHABLE"});
  EXPECT_EQ(received, (Strings{"e0   true [] 2", "e3   true [] 2", "e4   false [] 2",
                               "e5   false [] 2", "e6   false [] 2"}));
  EXPECT_EQ(takeLines(4).back(),
            line(4, label + "endpointId=e6 isReachable=false action=invokingCallback"));
}

TEST_F(CheckerTest, DefaultCheckerUsesTheProcessWideDriver) {
  ApplianceDriverReachabilityChecker supplied(driver);
  ApplianceDriverReachabilityChecker processWide;
  const std::string label = "[ApplianceDriverReachabilityChecker]: status=initialized ";
  EXPECT_EQ(takeLines(), (Lines{line(4, label + "usingSingleton=false"),
                                line(4, label + "usingSingleton=true")}));
  auto& shared = applianceDriver::getSimulatedApplianceDriver();
  const std::size_t before = shared.subscriptionCount();
  ASSERT_TRUE(processWide.registerReachabilityUpdateCallback("processWide", [](const auto&) {}));
  EXPECT_EQ(shared.subscriptionCount(), before + 1);
  EXPECT_TRUE(processWide.unregisterReachabilityUpdateCallback("processWide"));
  EXPECT_EQ(shared.subscriptionCount(), before);
}

TEST_F(CheckerTest, RegistrationsAndEventsOnSeveralThreadsKeepTheIdSetConsistent) {
  LogRecorder::instance().setDiscard(true);
  auto churn = [&](const std::string& prefix) {
    for (int i = 0; i < 200; ++i) {
      const std::string id = prefix + std::to_string(i);
      EXPECT_TRUE(checker.registerReachabilityUpdateCallback(id, [](const auto&) {}));
      driver.fire({"ep", "Veyra.EndpointHealth", "", "connectivity", "OK"});
      EXPECT_TRUE(checker.unregisterReachabilityUpdateCallback(id));
    }
  };
  std::thread other(churn, "a");
  churn("b");
  other.join();
  LogRecorder::instance().setDiscard(false);
  EXPECT_TRUE(driver.subscriptions.empty());
  EXPECT_FALSE(checker.isCallbackIdRegistered("a0") || checker.isCallbackIdRegistered("b199"));
}

}  // namespace
}  // namespace veranda::reachabilityCache
