#include "applianceDriver/SimulatedApplianceDriver.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "PlatformTestSupport.h"
#include "reachabilityCache/testing/VirtualTime.h"

namespace veranda::applianceDriver {
namespace {

using platformTesting::Journal;
using std::chrono::milliseconds;
using Devices = std::vector<DiscoveredDevice>;

DiscoveredDevice device(const std::string& id, bool reachable) {
  return {id, "", "", "", reachable, {}, {}};
}

// Adds "<tag>:" followed by each device's endpoint id and + or - for its flag.
std::function<void(const Devices&)> answer(Journal& journal, const std::string& tag) {
  return [&journal, tag](const Devices& devices) {
    std::string text = tag + ":";
    for (const auto& found : devices) {
      text += found.endpointId + (found.isReachable ? "+" : "-");
    }
    journal.add(text);
  };
}

TEST(SimulatedApplianceDriverTest, AnswersComeByDueTimeWithTheHomeAtDeliveryUntilShutdown) {
  reachabilityCache::test::VirtualTime time;
  Journal journal;
  SimulatedApplianceDriver driver;
  driver.upsertDevice(device("b", false));
  driver.upsertDevice(device("c", true));
  EXPECT_TRUE(driver.removeDevice("c"));
  driver.setRefuseRequests(true);
  EXPECT_FALSE(driver.getReachableDevices("r", answer(journal, "refused")));
  driver.setRefuseRequests(false);
  ASSERT_TRUE(driver.getReachableDevices("r", [&](const Devices& devices) {
    answer(journal, "held")(devices);
    journal.waitFor("go");
  }));
  for (const auto& [tag, minimum, maximum] : std::vector<std::tuple<const char*, int64_t, int64_t>>{
           {"slow", 400, 400},
           {"fast", 0, 20},
           {"same", 400, 400},                    // equal due times keep the order accepted
           {"dropped", INT64_MAX, INT64_MAX}}) {  // saturates: not in the past
    driver.setAnswerLatency(milliseconds(minimum), milliseconds(maximum));
    ASSERT_TRUE(driver.getReachableDevices("r", answer(journal, tag)));
  }
  journal.waitFor("held:b-");  // the driver's thread is held in it
  EXPECT_TRUE(driver.setReachable("b", true));
  EXPECT_FALSE(driver.waitUntilIdle(milliseconds(20)));
  journal.add("go");
  time.advance(milliseconds(399));
  EXPECT_EQ(journal.text(), "held:b- go fast:b+");
  time.advance(std::chrono::hours(24 * 365));
  EXPECT_EQ(journal.text(), "held:b- go fast:b+ slow:b+ same:b+");
  EXPECT_EQ(driver.pendingAnswers(), 1U);

  driver.shutdown();
  EXPECT_EQ(driver.pendingAnswers(), 0U);
  EXPECT_FALSE(driver.getReachableDevices("r", answer(journal, "late")));
  EXPECT_EQ(driver.acceptedRequests(), 5U);
  time.advance(milliseconds::max());
  EXPECT_EQ(journal.text(), "held:b- go fast:b+ slow:b+ same:b+");
}

// Held answers come when the test releases them (late, after the cache is
// gone, or never), and keep neither the driver nor virtual time busy.
TEST(SimulatedApplianceDriverTest, HeldAnswersComeWhenReleasedOrNever) {
  reachabilityCache::test::VirtualTime time;
  Journal journal;
  SimulatedApplianceDriver driver;
  driver.upsertDevice(device("a", true));
  driver.setHoldAnswers(true);
  ASSERT_TRUE(driver.getReachableDevices("r", answer(journal, "first")));
  driver.setAnswerLatency(milliseconds(50));
  ASSERT_TRUE(driver.getReachableDevices("r", answer(journal, "second")));
  driver.setHoldAnswers(false);
  ASSERT_TRUE(driver.getReachableDevices("r", answer(journal, "unheld")));
  time.advance(std::chrono::hours(1));
  EXPECT_EQ(journal.text(), "unheld:a+");
  EXPECT_EQ(driver.pendingAnswers(), 2U);
  EXPECT_TRUE(driver.waitUntilIdle(milliseconds(0)));
  EXPECT_EQ(time.pendingTasks(), 0U);

  EXPECT_TRUE(driver.setReachable("a", false));
  EXPECT_EQ(driver.releaseHeldAnswers(), 2U);  // at once, in the order accepted
  time.runUntilIdle();
  EXPECT_EQ(journal.text(), "unheld:a+ first:a- second:a-");
  EXPECT_EQ(driver.pendingAnswers(), 0U);

  driver.setHoldAnswers(true);
  ASSERT_TRUE(driver.getReachableDevices("r", answer(journal, "never")));
  driver.shutdown();  // drops it
  EXPECT_EQ(driver.pendingAnswers(), 0U);
  EXPECT_EQ(driver.releaseHeldAnswers(), 0U);
  EXPECT_EQ(driver.acceptedRequests(), 4U);
}

TEST(SimulatedApplianceDriverTest, ChangesReachSubscriptionsThatMayReenterTheDriverOrLeave) {
  Journal journal;
  Journal answers;
  SimulatedApplianceDriver driver;
  auto s0 = [&](const StateChangeEvent& change) {
    journal.add("s0:" + change.value);
    EXPECT_TRUE(driver.unsubscribeStateChanges("s0"));  // leaves from its own callback
  };
  // Re-enters the driver on its first event; on the next, held until the test unsubscribes it.
  auto s1 = [&](const StateChangeEvent& change) {
    journal.add("s1:" + change.endpointId + " " + change.namespace_ + "/" + change.propertyName +
                "=" + change.value);
    if (change.value == "UNREACHABLE") {
      EXPECT_TRUE(driver.getReachableDevices("r", answer(answers, "answer")));
      driver.setJsonConnectivityValues(true);
      driver.upsertDevice(device("a", true));  // a replacement with another flag
      return;
    }
    const auto until = std::chrono::steady_clock::now() + platformTesting::TIMEOUT;
    while (driver.subscriptionCount() != 0 && std::chrono::steady_clock::now() < until) {
      std::this_thread::yield();
    }
    journal.add("s1:returned");
  };
  driver.upsertDevice(device("a", true));
  ASSERT_TRUE(driver.subscribeStateChanges({}, "s0", s0, nullptr));
  ASSERT_TRUE(driver.subscribeStateChanges({"other"}, "s1", s1, nullptr));
  EXPECT_FALSE(driver.subscribeStateChanges({}, "s1", s0, nullptr));  // a duplicate id
  driver.setRefuseSubscriptions(true);
  EXPECT_FALSE(driver.subscribeStateChanges({}, "s2", s0, nullptr));
  driver.upsertDevice(device("new", false));    // a new device is no change
  EXPECT_TRUE(driver.setReachable("a", true));  // nor is the same flag
  EXPECT_TRUE(driver.setReachable("a", false));
  journal.waitFor("s1:a Veyra.EndpointHealth/connectivity=\"OK\"");
  driver.setRefuseUnsubscriptions(true);
  EXPECT_FALSE(driver.unsubscribeStateChanges("s1"));
  driver.setRefuseUnsubscriptions(false);
  EXPECT_TRUE(driver.unsubscribeStateChanges("s1"));  // waits for the held delivery
  journal.add("unsubscribed");
  driver.publishStateChange({"a", "Ns", "inst", "prop", "after"});
  ASSERT_TRUE(driver.waitUntilIdle(platformTesting::TIMEOUT));
  EXPECT_EQ(journal.waitFor("unsubscribed"),
            "s0:UNREACHABLE s1:a Veyra.EndpointHealth/connectivity=UNREACHABLE "
            "s1:a Veyra.EndpointHealth/connectivity=\"OK\" s1:returned unsubscribed");

  ASSERT_TRUE(driver.getReachableDevices("r", [&](const Devices&) {
    driver.shutdown();  // on the driver's own thread
    answers.add("shutDown");
  }));
  EXPECT_EQ(answers.waitFor("shutDown"), "answer:a+new- shutDown");
}

}  // namespace
}  // namespace veranda::applianceDriver
