#include "applianceDriver/SimulatedApplianceDriver.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "PlatformTestSupport.h"

namespace veranda::applianceDriver {
namespace {

using platformTesting::Journal;
using platformTesting::kTimeout;
using platformTesting::spinUntil;
using std::chrono::milliseconds;
using Devices = std::vector<DiscoveredDevice>;

DiscoveredDevice device(const std::string& endpointId, bool reachable) {
  return {endpointId, "entity-" + endpointId,        "PROT_ZIGBEE-ADAPTER",         "",
          reachable,  {{"PowerController", "main"}}, ApplianceDriverType::CONNECTED};
}

// Adds "<tag>:" followed by each device's entity id and + or - for its flag.
std::function<void(const Devices&)> answer(Journal& journal, const std::string& tag) {
  return [&journal, tag](const Devices& devices) {
    std::string text = tag + ":";
    for (const DiscoveredDevice& found : devices) {
      text += found.entityId + (found.isReachable ? "+" : "-");
    }
    journal.add(text);
  };
}

// Adds "<tag>:<endpoint> <namespace>/<property>=<value>".
std::function<void(const StateChangeEvent&)> events(Journal& journal, const std::string& tag) {
  return [&journal, tag](const StateChangeEvent& change) {
    journal.add(tag + ":" + change.endpointId + " " + change.namespace_ + "/" +
                change.propertyName + "=" + change.value);
  };
}

TEST(SimulatedApplianceDriverTest, AnswersComeByDueTimeWithTheHomeAtDeliveryUntilShutdown) {
  SimulatedApplianceDriver driver;
  Journal journal;
  driver.upsertDevice(device("b", false));
  driver.upsertDevice(device("a", true));
  driver.upsertDevice(device("c", true));
  EXPECT_TRUE(driver.removeDevice("c"));
  driver.setRefuseRequests(true);
  EXPECT_FALSE(driver.getReachableDevices("r", answer(journal, "refused")));
  driver.setRefuseRequests(false);
  std::atomic<bool> release{false};
  ASSERT_TRUE(driver.getReachableDevices("r", [&](const Devices& devices) {
    answer(journal, "held")(devices);
    spinUntil([&] { return release.load(); });
  }));
  const auto start = std::chrono::steady_clock::now();
  driver.setAnswerLatency(milliseconds(400));
  ASSERT_TRUE(driver.getReachableDevices("r", answer(journal, "slow")));
  driver.setRandomSeed(7);
  driver.setAnswerLatency(milliseconds(0), milliseconds(20));
  ASSERT_TRUE(driver.getReachableDevices("r", answer(journal, "fast")));
  driver.setAnswerLatency(std::chrono::hours(1));
  ASSERT_TRUE(driver.getReachableDevices("r", answer(journal, "dropped")));
  ASSERT_EQ(journal.waitFor(1), "held:entity-a+entity-b-");  // the driver's thread is held in it
  EXPECT_TRUE(driver.setReachable("b", true));
  EXPECT_FALSE(driver.waitUntilIdle(milliseconds(20)));
  release = true;
  const std::string delivered =
      "held:entity-a+entity-b- fast:entity-a+entity-b+ slow:entity-a+entity-b+";
  EXPECT_EQ(journal.waitFor(3), delivered);
  EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(400));

  driver.shutdown();
  EXPECT_EQ(driver.pendingAnswers(), 0U);
  EXPECT_FALSE(driver.getReachableDevices("r", answer(journal, "late")));
  EXPECT_EQ(driver.acceptedRequests(), 4U);
  EXPECT_EQ(journal.waitFor(0), delivered);
}

TEST(SimulatedApplianceDriverTest, ConnectivityChangesReachSubscriptionsThatMayReenterTheDriver) {
  SimulatedApplianceDriver driver;
  Journal journal;
  Journal answers;
  auto reentering = [&](const StateChangeEvent& change) {
    journal.add("s1:" + change.value);
    if (change.value == "UNREACHABLE") {
      EXPECT_TRUE(driver.getReachableDevices("r", answer(answers, "answer")));
      driver.setJsonConnectivityValues(true);
      driver.upsertDevice(device("a", true));  // a replacement with another flag
    } else {
      EXPECT_TRUE(driver.unsubscribeStateChanges("s1"));
    }
  };
  driver.upsertDevice(device("a", true));
  ASSERT_TRUE(driver.subscribeStateChanges({}, "s1", reentering, nullptr));
  ASSERT_TRUE(driver.subscribeStateChanges({"other"}, "s2", events(journal, "s2"), nullptr));
  driver.upsertDevice(device("new", false));    // a new device is no change
  EXPECT_TRUE(driver.setReachable("a", true));  // nor is the same flag
  EXPECT_TRUE(driver.setReachable("a", false));
  ASSERT_TRUE(driver.waitUntilIdle(kTimeout));
  EXPECT_EQ(journal.waitFor(0),
            "s1:UNREACHABLE s2:a Veyra.EndpointHealth/connectivity=UNREACHABLE s1:\"OK\" "
            "s2:a Veyra.EndpointHealth/connectivity=\"OK\"");
  EXPECT_EQ(driver.subscriptionCount(), 1U);

  ASSERT_TRUE(driver.getReachableDevices("r", [&](const Devices&) {
    driver.shutdown();  // on the driver's own thread
    answers.add("shutDown");
  }));
  EXPECT_EQ(answers.waitFor(2), "answer:entity-a+entity-new- shutDown");
}

TEST(SimulatedApplianceDriverTest, UnsubscribeStopsDeliveryAndWaitsForARunningCallback) {
  SimulatedApplianceDriver driver;
  Journal journal;
  std::atomic<bool> release{false};
  std::atomic<bool> unsubscribed{false};
  auto holding = [&](const StateChangeEvent& change) {
    journal.add("s1:" + change.value);
    spinUntil([&] { return release.load(); });
    journal.add(unsubscribed ? "s1:overlapped" : "s1:returned");
  };
  ASSERT_TRUE(driver.subscribeStateChanges({}, "s1", holding, nullptr));
  ASSERT_TRUE(driver.subscribeStateChanges({}, "s2", events(journal, "s2"), nullptr));
  EXPECT_FALSE(driver.subscribeStateChanges({}, "s1", events(journal, "duplicate"), nullptr));
  driver.setRefuseSubscriptions(true);
  EXPECT_FALSE(driver.subscribeStateChanges({}, "s3", events(journal, "refused"), nullptr));
  driver.publishStateChange({"a", "Ns", "inst", "prop", "held"});
  ASSERT_EQ(journal.waitFor(1), "s1:held");
  std::thread other([&] {
    EXPECT_TRUE(driver.unsubscribeStateChanges("s1"));
    unsubscribed = true;
  });
  spinUntil([&] { return driver.subscriptionCount() == 1; });
  release = true;
  other.join();
  driver.setRefuseUnsubscriptions(true);
  EXPECT_FALSE(driver.unsubscribeStateChanges("s2"));
  driver.publishStateChange({"a", "Ns", "inst", "prop", "after"});
  ASSERT_TRUE(driver.waitUntilIdle(kTimeout));
  EXPECT_EQ(journal.waitFor(0), "s1:held s1:returned s2:a Ns/prop=held s2:a Ns/prop=after");
}

}  // namespace
}  // namespace veranda::applianceDriver
