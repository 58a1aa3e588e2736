#include "reachabilityCache/ApplianceDriverReachabilityChecker.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
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
using Checker = ApplianceDriverReachabilityChecker;
constexpr auto kNative = applianceDriver::ApplianceDriverType::NATIVE;
constexpr auto kConnected = applianceDriver::ApplianceDriverType::CONNECTED;

// Records every call, keeps accepted requests and subscriptions until the test
// answers or fires them, and refuses on demand. `duringCall` runs inside every
// operation, outside the fake's own lock.
class FakeDriver : public applianceDriver::IUnifiedApplianceDriver {
 public:
  using DevicesCallback = std::function<void(const std::vector<DiscoveredDevice>&)>;
  using EventCallback = std::function<void(const StateChangeEvent&)>;

  bool getReachableDevices(const std::string& requestId, DevicesCallback onDevices) override {
    return call(requestIds, requestId, refuseRequests,
                [&] { pending.push_back(std::move(onDevices)); });
  }
  bool subscribeStateChanges(const std::vector<std::string>& endpointIds, const std::string& id,
                             EventCallback onStateChange,
                             std::function<void(const std::string&)> onError) override {
    EXPECT_TRUE(endpointIds.empty() && !onError) << "checker subscribes to all, without error hook";
    return call(subscribeIds, id, refuseSubscriptions,
                [&] { subscriptions[id] = std::move(onStateChange); });
  }
  bool unsubscribeStateChanges(const std::string& id) override {
    return call(unsubscribeIds, id, refuseUnsubscriptions, [&] { subscriptions.erase(id); });
  }

  // Answers the oldest accepted request.
  void answer(const std::vector<DiscoveredDevice>& devices) {
    DevicesCallback onDevices = std::move(pending.front());
    pending.erase(pending.begin());
    onDevices(devices);
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

  // Runs `duringCall`, then records `id` and, unless refusing, accepts.
  bool call(std::vector<std::string>& ids, const std::string& id, bool refuse,
            const std::function<void()>& accept) {
    if (duringCall) {
      duringCall();
    }
    std::lock_guard<std::mutex> lock(mutex);
    ids.push_back(id);
    if (!refuse) {
      accept();
    }
    return !refuse;
  }

  std::mutex mutex;
  bool refuseRequests = false, refuseSubscriptions = false, refuseUnsubscriptions = false;
  std::function<void()> duringCall;
  std::vector<std::string> requestIds, subscribeIds, unsubscribeIds;
  std::vector<DevicesCallback> pending;
  std::map<std::string, EventCallback> subscriptions;
};

LogLine line(int priority, const std::string& text) { return {priority, kCheckerTag, text}; }

// "endpoint entity adapter reachable [capabilities] type", capabilities sorted.
std::string describe(const ReachabilityCheckResult& result) {
  std::vector<std::string> capabilities;
  for (const auto& key : result.capabilities) {
    capabilities.push_back(key.capability + "/" + key.qualifier);
  }
  std::sort(capabilities.begin(), capabilities.end());
  std::string text = result.endpointId + " " + result.entityId + " " + result.adapterName +
                     (result.isReachable ? " true [" : " false [");
  for (const auto& capability : capabilities) {
    text += capability + ";";
  }
  return text + "] " + std::to_string(static_cast<int>(result.driverType));
}

const CapabilitySet kPower{{"Power", ""}};
const CapabilitySet kColor{{"Color", "rgb"}};

class CheckerTest : public ::testing::Test {
 protected:
  void SetUp() override { LogRecorder::instance().clear(); }

  // The checker's lines of at least `priority`.
  static std::vector<LogLine> lines(int priority = 3) {
    std::vector<LogLine> found = LogRecorder::instance().linesWithTag(kCheckerTag);
    found.erase(std::remove_if(found.begin(), found.end(),
                               [&](const LogLine& l) { return l.priority < priority; }),
                found.end());
    return found;
  }

  // Runs a check answered with `devices`; the results described, sorted.
  std::vector<std::string> check(const std::vector<EndpointInfo>& endpoints,
                                 const std::vector<DiscoveredDevice>& devices) {
    std::vector<std::string> described;
    int calls = 0;
    EXPECT_TRUE(checker.checkReachability(endpoints, "periodic_7", [&](const auto& results) {
      ++calls;
      for (const auto& result : results) {
        described.push_back(describe(result));
      }
    }));
    EXPECT_EQ(calls, 0);
    driver.answer(devices);
    EXPECT_EQ(calls, 1);
    std::sort(described.begin(), described.end());
    return described;
  }

  FakeDriver driver;
  Checker checker{driver};
};

TEST_F(CheckerTest, BatchReportsEachDistinctEndpointOnceAndTheLaterEntryWins) {
  EXPECT_EQ(check({{"ep1", "ent1", "PROT_ZIGBEE-ADAPTER", kPower},
                   {"ep2", "ent2", "PROT_WIFI-ADAPTER", kPower},
                   {"ep1", "ent1b", "PROT_CHIP-ADAPTER", kColor}},
                  {}),
            (std::vector<std::string>{"ep1 ent1b PROT_CHIP-ADAPTER false [Color/rgb;] 2",
                                      "ep2 ent2 PROT_WIFI-ADAPTER false [Power/;] 2"}));
  EXPECT_EQ(driver.requestIds, std::vector<std::string>{"periodic_7"});
  EXPECT_EQ(lines(), (std::vector<LogLine>{
                         line(3,
                              "[checkReachability]: details=requestId=periodic_7 count=3\n"
                              "   ep1 -> ent1\n   ep2 -> ent2\n   ep1 -> ent1b"),
                         line(4, "[checkReachability]: requestId=periodic_7 status=requestSent"),
                         line(4,
                              "[processDiscoveredDevices]: requestId=periodic_7 deviceCount=0 "
                              "resultCount=2"),
                     }));
}

TEST_F(CheckerTest, OnlySupportedAdaptersCountAndEmptyDeviceFieldsKeepWhatIsKnown) {
  const std::vector<EndpointInfo> requested = {{"a", "entA", "PROT_ZIGBEE-ADAPTER", kPower},
                                               {"b", "entB", "PROT_WIFI-ADAPTER", kPower},
                                               {"c", "entC", "PROT_BLE-ADAPTER", kPower},
                                               {"d", "entD", "PROT_ZIGBEE-ADAPTER", kPower},
                                               {"e", "entE", "PROT_ZIGBEE-ADAPTER", kPower}};
  const std::vector<DiscoveredDevice> devices = {
      {"a", "", "PROT_WIFI-ADAPTER", "lamp", true, {}, kNative},
      {"b", "x", "prot_wifi-adapter", "lamp", true, {}, kNative},
      {"c", "x", " PROT_BLE-ADAPTER ", "lamp", true, {}, kNative},
      {"d", "entD2", "PROT_CHIP-ADAPTER", "lamp", false, {{"Color", "rgb"}}, kConnected},
      {"zz", "entZ", "PROT_MOCK-ADAPTER", "lamp", true, {}, kNative},
      // The later supported report of "e" wins; its empty fields keep the earlier one's.
      {"e", "entE2", "PROT_BLE_MESH-ADAPTER", "lamp", true, {{"Color", "rgb"}}, kNative},
      {"e", "", "PROT_LOCALSKILLS-ADAPTER", "lamp", false, {}, kConnected},
      {"e", "entX", "PROT_ZWAVE-ADAPTER", "lamp", true, {}, kNative}};
  EXPECT_EQ(check(requested, devices),
            (std::vector<std::string>{"a entA PROT_WIFI-ADAPTER true [Power/;] 0",
                                      "b entB PROT_WIFI-ADAPTER false [Power/;] 2",
                                      "c entC PROT_BLE-ADAPTER false [Power/;] 2",
                                      "d entD2 PROT_CHIP-ADAPTER false [Color/rgb;] 1",
                                      "e entE2 PROT_LOCALSKILLS-ADAPTER false [Color/rgb;] 1"}));
  const std::vector<LogLine> all = lines();
  ASSERT_EQ(all.size(), 6U);
  EXPECT_EQ(std::vector<LogLine>(all.begin() + 2, all.end()),
            (std::vector<LogLine>{
                line(3,
                     "[updateResultWithDiscoveredDevice]: endpointId=b "
                     "adapterName=prot_wifi-adapter reason=unsupportedAdapter"),
                line(3,
                     "[updateResultWithDiscoveredDevice]: endpointId=c "
                     "adapterName= PROT_BLE-ADAPTER  reason=unsupportedAdapter"),
                line(3,
                     "[updateResultWithDiscoveredDevice]: endpointId=e "
                     "adapterName=PROT_ZWAVE-ADAPTER reason=unsupportedAdapter"),
                line(4,
                     "[processDiscoveredDevices]: requestId=periodic_7 deviceCount=8 "
                     "resultCount=5"),
            }));
}

TEST_F(CheckerTest, EmptyBatchAnswersAtOnceAndRefusedRequestNeverAnswers) {
  int calls = 0;
  EXPECT_TRUE(checker.checkReachability(
      {}, "manual_0", [&](const auto& results) { calls += results.empty() ? 1 : 100; }));
  EXPECT_EQ(calls, 1);
  EXPECT_TRUE(driver.requestIds.empty());

  driver.refuseRequests = true;
  EXPECT_FALSE(checker.checkReachability({{"ep1", "ent1", "PROT_ZIGBEE-ADAPTER", kPower}},
                                         "manual_1", [&](const auto&) { ++calls; }));
  EXPECT_EQ(driver.requestIds, std::vector<std::string>{"manual_1"});
  EXPECT_TRUE(driver.pending.empty());
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(lines(),
            (std::vector<LogLine>{
                line(3, "[checkReachability]: details=requestId=manual_0 count=0"),
                line(3, "[checkReachability]: reason=noEndpointsToCheck"),
                line(3, "[checkReachability]: details=requestId=manual_1 count=1\n   ep1 -> ent1"),
                line(6, "[checkReachability]: requestId=manual_1 reason=getReachableDevicesFailed"),
            }));
}

TEST_F(CheckerTest, RegistrationRefusesBadParametersAndDuplicatesWithoutAskingTheDriver) {
  auto noop = [](const ReachabilityCheckResult&) {};
  EXPECT_FALSE(checker.registerReachabilityUpdateCallback("", nullptr));
  EXPECT_FALSE(checker.registerReachabilityUpdateCallback("cb", nullptr));
  EXPECT_TRUE(checker.registerReachabilityUpdateCallback("cb", noop));
  EXPECT_FALSE(checker.registerReachabilityUpdateCallback("cb", noop));
  EXPECT_EQ(driver.subscribeIds, std::vector<std::string>{"cb"});
  EXPECT_EQ(lines(),
            (std::vector<LogLine>{
                line(3, "[registerReachabilityUpdateCallback]: callbackId="),
                line(6, "[validateCallbackParams]: reason=emptyCallbackId"),
                line(3, "[registerReachabilityUpdateCallback]: callbackId=cb"),
                line(6, "[validateCallbackParams]: reason=nullCallback"),
                line(3, "[registerReachabilityUpdateCallback]: callbackId=cb"),
                line(4, "[registerReachabilityUpdateCallback]: callbackId=cb status=registered"),
                line(3, "[registerReachabilityUpdateCallback]: callbackId=cb"),
                line(5, "[registerReachabilityUpdateCallback]: reason=duplicateCallbackId"),
            }));
}

TEST_F(CheckerTest, IdIsRegisteredOnlyWhileTheDriverHoldsTheSubscription) {
  // The driver is called without the checker's lock, before the id is
  // recorded and before it is forgotten.
  std::vector<bool> registeredDuringCall;
  driver.duringCall = [&] { registeredDuringCall.push_back(checker.isCallbackIdRegistered("cb")); };
  auto noop = [](const ReachabilityCheckResult&) {};

  driver.refuseSubscriptions = true;
  EXPECT_FALSE(checker.registerReachabilityUpdateCallback("cb", noop));
  EXPECT_FALSE(checker.unregisterReachabilityUpdateCallback("cb"));
  driver.refuseSubscriptions = false;
  EXPECT_TRUE(checker.registerReachabilityUpdateCallback("cb", noop));
  driver.refuseUnsubscriptions = true;
  EXPECT_FALSE(checker.unregisterReachabilityUpdateCallback("cb"));
  EXPECT_FALSE(checker.registerReachabilityUpdateCallback("cb", noop));
  driver.refuseUnsubscriptions = false;
  EXPECT_TRUE(checker.unregisterReachabilityUpdateCallback("cb"));
  EXPECT_FALSE(checker.unregisterReachabilityUpdateCallback("cb"));
  EXPECT_FALSE(checker.unregisterReachabilityUpdateCallback(""));

  EXPECT_EQ(registeredDuringCall, (std::vector<bool>{false, false, true, true}));
  EXPECT_EQ(driver.unsubscribeIds, (std::vector<std::string>{"cb", "cb"}));
  const std::string reg = "[registerReachabilityUpdateCallback]: ";
  const std::string unreg = "[unregisterReachabilityUpdateCallback]: ";
  EXPECT_EQ(lines(4), (std::vector<LogLine>{
                          line(6, reg + "callbackId=cb reason=subscriptionFailed"),
                          line(5, unreg + "reason=callbackNotFound callbackId=cb"),
                          line(4, reg + "callbackId=cb status=registered"),
                          line(5, unreg + "callbackId=cb reason=unsubscriptionFailed"),
                          line(5, reg + "reason=duplicateCallbackId"),
                          line(4, unreg + "callbackId=cb status=unregistered"),
                          line(5, unreg + "reason=callbackNotFound callbackId=cb"),
                          line(6, unreg + "reason=emptyCallbackId"),
                      }));
}

TEST_F(CheckerTest, OnlyConnectivityEventsReachTheCallback) {
  std::vector<std::string> received;
  ASSERT_TRUE(checker.registerReachabilityUpdateCallback(
      "cb", [&](const ReachabilityCheckResult& result) { received.push_back(describe(result)); }));
  const std::string health = "Veyra.EndpointHealth";
  driver.fire({"e0", health, "", "connectivity", "OK"});
  driver.fire({"e1", health, "", "connectivity", R"({"value":"OK","since":3})"});
  driver.fire({"e2", health, "", "connectivity", "ok"});
  driver.fire({"e3", health, "", "connectivity", " OK "});
  driver.fire({"e4", health, "", "connectivity", "UNREACHABLE"});
  driver.fire({"e5", "Veyra.PowerController", "", "connectivity", "OK"});
  driver.fire({"e6", health, "", "Connectivity", "OK"});

  EXPECT_EQ(received,
            (std::vector<std::string>{"e0   true [] 2", "e1   true [] 2", "e2   false [] 2",
                                      "e3   false [] 2", "e4   false [] 2"}));
  const std::vector<LogLine> all = lines();
  ASSERT_EQ(all.size(), 16U);
  const std::string label = "[stateChangeCallback]: ";
  EXPECT_EQ(std::vector<LogLine>(all.begin() + 2, all.begin() + 4),
            (std::vector<LogLine>{
                line(3, label + "endpointId=e0 namespace=Veyra.EndpointHealth "
                                "propertyName=connectivity value=OK"),
                line(4, label + "endpointId=e0 isReachable=true action=invokingCallback"),
            }));
  EXPECT_EQ(all[5], line(4, label + "endpointId=e1 isReachable=true action=invokingCallback"));
  EXPECT_EQ(all[7], line(4, label + "endpointId=e2 isReachable=false action=invokingCallback"));
  EXPECT_EQ(std::vector<LogLine>(all.end() - 2, all.end()),
            (std::vector<LogLine>{
                line(3, label + "endpointId=e6 namespace=Veyra.EndpointHealth "
                                "propertyName=Connectivity value=OK"),
                line(3, label + "reason=notConnectivityEvent"),
            }));
}

TEST_F(CheckerTest, DefaultCheckerUsesTheProcessWideDriver) {
  Checker supplied(driver);
  Checker processWide;
  const std::string label = "[ApplianceDriverReachabilityChecker]: status=initialized ";
  EXPECT_EQ(lines(), (std::vector<LogLine>{line(4, label + "usingSingleton=false"),
                                           line(4, label + "usingSingleton=true")}));
  std::atomic<bool> reachable{false};
  ASSERT_TRUE(processWide.registerReachabilityUpdateCallback(
      "processWide", [&](const auto& result) { reachable = result.isReachable; }));
  applianceDriver::getSimulatedApplianceDriver().publishStateChange(
      {"ep1", "Veyra.EndpointHealth", "", "connectivity", "OK"});
  EXPECT_TRUE(LogRecorder::instance().waitForLine(
      kCheckerTag, "endpointId=ep1 isReachable=true action=invokingCallback",
      std::chrono::seconds(5)));
  // A successful cancellation waits for a delivery still running.
  EXPECT_TRUE(processWide.unregisterReachabilityUpdateCallback("processWide"));
  EXPECT_TRUE(reachable);
}

TEST_F(CheckerTest, RegistrationsAndEventsOnSeveralThreadsKeepTheIdSetConsistent) {
  LogRecorder::instance().setDiscard(true);
  auto churn = [&](const std::string& prefix) {
    for (int i = 0; i < 200; ++i) {
      const std::string id = prefix + std::to_string(i);
      EXPECT_TRUE(checker.registerReachabilityUpdateCallback(id, [](const auto&) {}));
      EXPECT_TRUE(checker.unregisterReachabilityUpdateCallback(id));
    }
  };
  std::thread first(churn, "a");
  std::thread second(churn, "b");
  for (int i = 0; i < 200; ++i) {
    driver.fire({"ep", "Veyra.EndpointHealth", "", "connectivity", "OK"});
  }
  first.join();
  second.join();
  LogRecorder::instance().setDiscard(false);
  EXPECT_TRUE(driver.subscriptions.empty());
  EXPECT_FALSE(checker.isCallbackIdRegistered("a0") || checker.isCallbackIdRegistered("b199"));
}

}  // namespace
}  // namespace veranda::reachabilityCache
