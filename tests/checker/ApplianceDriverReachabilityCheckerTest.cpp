#include "reachabilityCache/ApplianceDriverReachabilityChecker.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <iterator>
#include <string>
#include <thread>
#include <tuple>
#include <unordered_map>
#include <utility>
#include <vector>

#include "LogRecorder.h"
#include "applianceDriver/SimulatedApplianceDriver.h"

namespace veranda::reachabilityCache {

class ApplianceDriverReachabilityCheckerTestPeer {
 public:
  static bool holds(const ApplianceDriverReachabilityChecker& checker, const std::string& id) {
    return checker.isCallbackIdRegistered(id);
  }
};

namespace {

using Peer = ApplianceDriverReachabilityCheckerTestPeer;

using test::LogLine;
using test::LogRecorder;
using Strings = std::vector<std::string>;
using Lines = std::vector<LogLine>;
using Devices = std::vector<applianceDriver::DiscoveredDevice>;
constexpr auto CONNECTED = applianceDriver::ApplianceDriverType::CONNECTED;
constexpr const char* HEALTH = "Veyra.EndpointHealth";
const CapabilitySet POWER{{"Power", ""}};

LogLine line(int level, const std::string& text) { return {level, test::CHECKER_TAG, text}; }

// "endpoint entity adapter +|- type capability..."
std::string describe(const ReachabilityCheckResult& r) {
  std::string text = r.endpointId + " " + r.entityId + " " + r.adapterName +
                     (r.isReachable ? " +" : " -") + std::to_string(static_cast<int>(r.driverType));
  for (const auto& key : r.capabilities) {
    text += " " + key.capability + "/" + key.qualifier;
  }
  return text;
}

// The fixture is the checker's driver: it records calls as "<operation> <id>", plus "+" while the
// checker holds the id (so it calls without its lock), and refuses the operation in `refuse`.
class CheckerTest : public ::testing::Test, public applianceDriver::IUnifiedApplianceDriver {
 protected:
  CheckerTest() { LogRecorder::instance().clear(); }

  bool getReachableDevices(const std::string& id,
                           std::function<void(const Devices&)> onDevices) override {
    pending.push_back(std::move(onDevices));
    return call("get", id);
  }
  bool subscribeStateChanges(const Strings& endpointIds, const std::string& id,
                             std::function<void(const applianceDriver::StateChangeEvent&)> onEvent,
                             std::function<void(const std::string&)> onError) override {
    EXPECT_TRUE(endpointIds.empty() && onEvent && !onError) << "all endpoints, no error hook";
    return call("subscribe", id);
  }
  bool unsubscribeStateChanges(const std::string& id) override { return call("unsubscribe", id); }
  bool call(const std::string& operation, const std::string& id) {
    calls.push_back(operation + " " + id + (Peer::holds(checker, id) ? "+" : ""));
    return operation != refuse;
  }

  // The checker's lines since the last call; empties the log.
  static Lines takeLines() {
    Lines found = LogRecorder::instance().linesWithTag(test::CHECKER_TAG);
    LogRecorder::instance().clear();
    return found;
  }

  std::string refuse;
  Strings calls;
  std::vector<std::function<void(const Devices&)>> pending;
  ApplianceDriverReachabilityChecker checker{*this};
};

// Collects "answer" and then the results of each answer.
class Answers {
 public:
  ApplianceDriverReachabilityChecker::ResultsCallback callback() {
    return [this](const std::vector<ReachabilityCheckResult>& answer) {
      texts.push_back("answer");
      std::transform(answer.begin(), answer.end(), std::back_inserter(texts), describe);
    };
  }
  Strings texts;
};

TEST_F(CheckerTest, EmptyBatchAnswersAtOnceAndRefusedBatchNever) {
  const std::string check = "[checkReachability]: ";
  Answers answers;
  EXPECT_TRUE(checker.checkReachability({}, "m0", answers.callback()));
  EXPECT_EQ(answers.texts, Strings{"answer"});
  EXPECT_EQ(takeLines(), (Lines{line(3, check + "details=requestId=m0 count=0"),
                                line(3, check + "reason=noEndpointsToCheck")}));
  refuse = "get";
  EXPECT_FALSE(checker.checkReachability({{"a", "entA", "PROT_WIFI-ADAPTER", {}}}, "m1",
                                         answers.callback()));
  EXPECT_EQ(takeLines().back(), line(6, check + "requestId=m1 reason=getReachableDevicesFailed"));
  EXPECT_EQ(calls, Strings{"get m1"});
  EXPECT_EQ(answers.texts, Strings{"answer"});
}

// The results come in the order of a table keyed by the requested ids (the
// table that matches devices to requests, seeded from the table of the
// request), and a result that no device filled carries a copy of the copy of
// the requested capabilities that the check keeps: both as the plain tables
// of strings list them, whatever form the check keeps its request in.
TEST_F(CheckerTest, ResultsComeInTheOrderOfTheTablesOfRequestedIds) {
  std::vector<EndpointInfo> requested;
  Devices devices;
  for (int i = 0; i < 3000; ++i) {
    // Every seventh id comes twice; the later entry wins.
    const std::string id = "endpoint-" + std::to_string(i % 7 == 0 ? i / 7 : i);
    CapabilitySet capabilities;
    for (int key = 0; key <= i % 5; ++key) {
      capabilities.insert({"Capability" + std::to_string(key * 31 + i), "q" + std::to_string(key)});
    }
    requested.emplace_back(id, "entity-" + std::to_string(i), "PROT_ZIGBEE-ADAPTER", capabilities);
    if (i % 3 == 0) {
      devices.push_back({id, "", "PROT_WIFI-ADAPTER", "", true, {}, CONNECTED});
    }
  }
  std::unordered_map<std::string, EndpointInfo> lookup;
  for (const EndpointInfo& endpoint : requested) {
    lookup.insert_or_assign(endpoint.endpointId, endpoint);
  }
  std::unordered_map<std::string, int> table;
  for (const auto& entry : lookup) {
    table.emplace(entry.first, 0);
  }
  Strings expected;
  for (const auto& entry : table) {
    const CapabilitySet kept = lookup.at(entry.first).capabilities;
    std::string text = entry.first;
    for (const CapabilityKey& key : kept) {
      text += " " + key.capability + "/" + key.qualifier;
    }
    expected.push_back(text);
  }

  Strings got;
  EXPECT_TRUE(checker.checkReachability(requested, "order",
                                        [&](const std::vector<ReachabilityCheckResult>& results) {
                                          for (const ReachabilityCheckResult& result : results) {
                                            std::string text = result.endpointId;
                                            for (const CapabilityKey& key : result.capabilities) {
                                              text += " " + key.capability + "/" + key.qualifier;
                                            }
                                            got.push_back(text);
                                          }
                                        }));
  pending.back()(devices);
  EXPECT_EQ(got, expected);
}

TEST_F(CheckerTest, BatchGivesEachRequestedEndpointOneResultFromSupportedDevicesOnly) {
  const std::vector<EndpointInfo> requested = {{"a", "entA", "PROT_ZIGBEE-ADAPTER", POWER},
                                               {"b", "entB", "PROT_WIFI-ADAPTER", POWER},
                                               {"c", "entC", "PROT_BLE-ADAPTER", POWER},
                                               {"c", "entC2", "PROT_CHIP-ADAPTER", {{"Color", ""}}},
                                               {"d", "entD", "PROT_ZIGBEE-ADAPTER", POWER}};
  const Devices devices = {
      {"a", "", "PROT_WIFI-ADAPTER", "lamp", true, {}, CONNECTED},
      {"b", "x", "prot_wifi-adapter", "lamp", true, {}, CONNECTED},
      {"c", "", "PROT_CHIP-ADAPTER", "lamp", true, {}, CONNECTED},
      {"zz", "entZ", "PROT_ZWAVE-ADAPTER", "lamp", true, {}, CONNECTED},
      // The last supported report of "d" wins; its empty fields keep the earlier one's.
      {"d", "entD2", "PROT_BLE_MESH-ADAPTER", "lamp", true, {{"Color", "rgb"}}, CONNECTED},
      {"d", "", "PROT_LOCALSKILLS-ADAPTER", "lamp", false, {}, CONNECTED},
      {"d", "entX", " PROT_MOCK-ADAPTER ", "lamp", true, {}, CONNECTED}};
  Answers answers;
  EXPECT_TRUE(checker.checkReachability(requested, "p", answers.callback()));
  ASSERT_EQ(calls, Strings{"get p"});
  EXPECT_EQ(answers.texts, Strings{});  // not before the driver answers
  pending.back()(devices);
  std::sort(answers.texts.begin(), answers.texts.end());
  EXPECT_EQ(answers.texts,
            (Strings{"a entA PROT_WIFI-ADAPTER +1 Power/", "answer",
                     "b entB PROT_WIFI-ADAPTER -2 Power/", "c entC2 PROT_CHIP-ADAPTER +1 Color/",
                     "d entD2 PROT_LOCALSKILLS-ADAPTER -1 Color/rgb"}));
  const std::string check = "[checkReachability]: ";
  const std::string unsupported = "[updateResultWithDiscoveredDevice]: endpointId=";
  EXPECT_EQ(
      takeLines(),
      (Lines{line(3, check + "details=requestId=p count=5\n   a -> entA\n"
                             "   b -> entB\n   c -> entC\n   c -> entC2\n   d -> entD"),
             line(4, check + "requestId=p status=requestSent"),
             line(3, unsupported + "b adapterName=prot_wifi-adapter reason=unsupportedAdapter"),
             line(3, unsupported + "d adapterName= PROT_MOCK-ADAPTER  reason=unsupportedAdapter"),
             line(4, "[processDiscoveredDevices]: requestId=p deviceCount=7 resultCount=4")}));
}

TEST_F(CheckerTest, OnlyTheSevenAdapterNamesCountExactly) {
  const std::vector<std::pair<std::string, bool>> adapters = {
      {"PROT_ZIGBEE-ADAPTER", true},      {"PROT_WIFI-ADAPTER", true},
      {"PROT_LOCALSKILLS-ADAPTER", true}, {"PROT_CHIP-ADAPTER", true},
      {"PROT_BLE-ADAPTER", true},         {"PROT_BLE_MESH-ADAPTER", true},
      {"PROT_MOCK-ADAPTER", true},        {"prot_zigbee-adapter", false},
      {" PROT_WIFI-ADAPTER", false},      {"PROT_BLE-ADAPTER ", false},
      {"PROT_ZWAVE-ADAPTER", false},      {"", false}};
  std::vector<EndpointInfo> requested;
  Devices devices;
  Strings expected = {"answer"};
  for (const auto& [adapter, supported] : adapters) {
    const std::string id = "[" + adapter + "]";
    requested.emplace_back(id, "e", "PROT_ZIGBEE-ADAPTER", CapabilitySet{});
    devices.push_back({id, "e", adapter, "", true, {}, CONNECTED});
    expected.push_back(id + " e " + (supported ? adapter + " +1" : "PROT_ZIGBEE-ADAPTER -2"));
  }
  Answers answers;
  ASSERT_TRUE(checker.checkReachability(requested, "p", answers.callback()));
  pending.back()(devices);
  std::sort(answers.texts.begin(), answers.texts.end());
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(answers.texts, expected);
}

TEST_F(CheckerTest, IdIsRegisteredOnlyWhileTheDriverHoldsTheSubscription) {
  const std::string reg = "[registerReachabilityUpdateCallback]: ";
  const std::string unreg = "[unregisterReachabilityUpdateCallback]: ";
  const ApplianceDriverReachabilityChecker::UpdateCallback noop = [](const auto&) {};
  // Steps register `id` (with `noop` or none) or unregister it, the driver refusing `refused`.
  using Step = std::tuple<std::string, const char*, const char*, bool, int, std::string>;
  for (const auto& [operation, id, refused, expected, priority, text] : std::vector<Step>{
           {"register", "", "", false, 6, "[validateCallbackParams]: reason=emptyCallbackId"},
           {"registerNull", "c", "", false, 6, "[validateCallbackParams]: reason=nullCallback"},
           {"unregister", "", "", false, 6, unreg + "reason=emptyCallbackId"},
           {"unregister", "c", "", false, 5, unreg + "reason=callbackNotFound callbackId=c"},
           {"register", "c", "subscribe", false, 6, reg + "callbackId=c reason=subscriptionFailed"},
           {"register", "c", "", true, 4, reg + "callbackId=c status=registered"},
           {"unregister", "c", "unsubscribe", false, 5,
            unreg + "callbackId=c reason=unsubscriptionFailed"},
           {"register", "c", "", false, 5, reg + "reason=duplicateCallbackId"},
           {"unregister", "c", "", true, 4, unreg + "callbackId=c status=unregistered"}}) {
    refuse = refused;
    const bool registering = operation != "unregister";
    const bool done = registering ? checker.registerReachabilityUpdateCallback(
                                        id, operation == "register" ? noop : nullptr)
                                  : checker.unregisterReachabilityUpdateCallback(id);
    EXPECT_EQ(done, expected) << text;
    EXPECT_EQ(takeLines(), (Lines{line(3, (registering ? reg : unreg) + "callbackId=" + id),
                                  line(priority, text)}));
  }
  // The id is recorded once the driver accepts and kept until it cancels.
  EXPECT_EQ(calls, (Strings{"subscribe c", "subscribe c", "unsubscribe c+", "unsubscribe c+"}));
}

TEST_F(CheckerTest, DefaultCheckerPassesOnlyConnectivityEventsWhileOtherIdsComeAndGo) {
  ApplianceDriverReachabilityChecker supplied(*this);
  ApplianceDriverReachabilityChecker processWide;
  const std::string init = "[ApplianceDriverReachabilityChecker]: status=initialized ";
  EXPECT_EQ(takeLines(),
            (Lines{line(4, init + "usingSingleton=false"), line(4, init + "usingSingleton=true")}));
  auto& driver = applianceDriver::getSimulatedApplianceDriver();
  Strings received;
  ASSERT_TRUE(processWide.registerReachabilityUpdateCallback(
      "cb", [&](const ReachabilityCheckResult& result) { received.push_back(describe(result)); }));
  takeLines();
  driver.publishStateChange({"e0", HEALTH, "", "connectivity", "OK"});
  driver.publishStateChange({"e1", "Veyra.PowerController", "", "connectivity", "OK"});
  ASSERT_TRUE(driver.waitUntilIdle(std::chrono::seconds(5)));
  const std::string label = "[stateChangeCallback]: ";
  EXPECT_EQ(takeLines(), (Lines{line(3, label + "endpointId=e0 namespace=Veyra.EndpointHealth "
                                                "propertyName=connectivity value=OK"),
                                line(4, label + "endpointId=e0 isReachable=true "
                                                "action=invokingCallback"),
                                line(3, label + "endpointId=e1 namespace=Veyra.PowerController "
                                                "propertyName=connectivity value=OK"),
                                line(3, label + "reason=notConnectivityEvent")}));

  // Other ids come and go on two threads while the driver's thread delivers.
  LogRecorder::instance().setMode(test::LogCapture::Mode::SILENCE);
  auto churn = [&](const std::string& prefix) {
    for (int i = 0; i < 200; ++i) {
      const std::string id = prefix + std::to_string(i);
      EXPECT_TRUE(processWide.registerReachabilityUpdateCallback(id, [](const auto&) {}));
      driver.publishStateChange({"ep", HEALTH, "", "Connectivity", "OK"});
      EXPECT_TRUE(processWide.unregisterReachabilityUpdateCallback(id));
    }
  };
  std::thread other(churn, "a");
  for (const char* value : {R"({"value":"OK"})", "ok", " OK "}) {
    driver.publishStateChange({value, HEALTH, "", "connectivity", value});
  }
  churn("b");
  other.join();
  EXPECT_TRUE(driver.waitUntilIdle(std::chrono::seconds(5)));
  LogRecorder::instance().setMode(test::LogCapture::Mode::COLLECT);
  EXPECT_EQ(driver.subscriptionCount(), 1U);
  EXPECT_FALSE(Peer::holds(processWide, "b199"));
  EXPECT_TRUE(processWide.unregisterReachabilityUpdateCallback("cb"));
  EXPECT_EQ(received, (Strings{"e0   +2", R"({"value":"OK"}   +2)", "ok   -2", " OK    -2"}));
}

}  // namespace
}  // namespace veranda::reachabilityCache
