#include "applianceDriver/SimulatedApplianceDriver.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace veranda::applianceDriver {
namespace {

using std::chrono::milliseconds;
using Strings = std::vector<std::string>;
constexpr milliseconds kTimeout{5000};
constexpr const char* kHealth = " Veyra.EndpointHealth/Veyra.EndpointHealth/connectivity=";

DiscoveredDevice device(const std::string& endpointId, bool reachable) {
  return DiscoveredDevice{
      endpointId, "entity-" + endpointId,        "PROT_ZIGBEE-ADAPTER",         "",
      reachable,  {{"PowerController", "main"}}, ApplianceDriverType::CONNECTED};
}

template <typename Condition>
void spinUntil(Condition condition) {
  const auto deadline = std::chrono::steady_clock::now() + kTimeout;
  while (!condition() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::yield();
  }
}

// Records deliveries as "<tag>:<text>"; an answer's text lists the endpoint
// ids, each followed by + or - for its reachable flag.
class Inbox {
 public:
  void add(const std::string& entry) {
    std::lock_guard<std::mutex> lock(mutex_);
    entries_.push_back(entry);
    changed_.notify_all();
  }
  std::function<void(const std::vector<DiscoveredDevice>&)> answer(const std::string& tag) {
    return [this, tag](const std::vector<DiscoveredDevice>& devices) {
      std::string text;
      for (const DiscoveredDevice& found : devices) {
        text += found.endpointId + (found.isReachable ? "+" : "-");
      }
      add(tag + ":" + text);
    };
  }
  std::function<void(const StateChangeEvent&)> events(const std::string& tag) {
    return [this, tag](const StateChangeEvent& change) {
      add(tag + ":" + change.endpointId + " " + change.namespace_ + "/" + change.instance + "/" +
          change.propertyName + "=" + change.value);
    };
  }
  bool waitFor(const std::string& entry) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, kTimeout, [&] {
      return std::find(entries_.begin(), entries_.end(), entry) != entries_.end();
    });
  }
  Strings entries(const std::string& prefix = "") {
    std::lock_guard<std::mutex> lock(mutex_);
    Strings matching;
    std::copy_if(entries_.begin(), entries_.end(), std::back_inserter(matching),
                 [&](const std::string& entry) { return entry.rfind(prefix, 0) == 0; });
    return matching;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  Strings entries_;
};

TEST(SimulatedApplianceDriverTest, AnswersCarryTheHomeAsItStandsAtDelivery) {
  EXPECT_EQ(&getUnifiedApplianceDriver(), &getSimulatedApplianceDriver());
  SimulatedApplianceDriver driver;
  Inbox inbox;
  driver.upsertDevice(device("b", false));
  driver.upsertDevice(device("a", true));
  driver.upsertDevice(device("c", true));
  EXPECT_TRUE(driver.removeDevice("c"));
  EXPECT_FALSE(driver.removeDevice("c"));
  std::atomic<bool> release{false};
  ASSERT_TRUE(driver.getReachableDevices("r1", [&](const std::vector<DiscoveredDevice>& devices) {
    std::string entities;
    for (const DiscoveredDevice& found : devices) {
      entities += found.entityId;
    }
    inbox.add("first:" + entities);
    spinUntil([&] { return release.load(); });
  }));
  ASSERT_TRUE(driver.getReachableDevices("r2", inbox.answer("second")));
  ASSERT_TRUE(
      inbox.waitFor("first:entity-aentity-b"));  // the driver's thread is held in the first answer
  EXPECT_TRUE(driver.setReachable("b", true));
  EXPECT_FALSE(driver.setReachable("unknown", true));
  EXPECT_EQ(driver.pendingAnswers(), 2U);
  release = true;
  ASSERT_TRUE(driver.waitUntilIdle(kTimeout));
  EXPECT_EQ(inbox.entries(), (Strings{"first:entity-aentity-b", "second:a+b+"}));
  EXPECT_EQ(driver.acceptedRequests(), 2U);
  EXPECT_EQ(driver.pendingAnswers(), 0U);
}

TEST(SimulatedApplianceDriverTest, RefusedRequestsNeverAnswerAndAnswersComeByDueTime) {
  SimulatedApplianceDriver driver;
  Inbox inbox;
  driver.upsertDevice(device("a", true));
  driver.setRefuseRequests(true);
  EXPECT_FALSE(driver.getReachableDevices("refused", inbox.answer("refused")));
  driver.setRefuseRequests(false);
  const auto start = std::chrono::steady_clock::now();
  driver.setAnswerLatency(milliseconds(400));
  ASSERT_TRUE(driver.getReachableDevices("slow", inbox.answer("slow")));
  driver.setRandomSeed(7);
  driver.setAnswerLatency(milliseconds(0), milliseconds(20));
  ASSERT_TRUE(driver.getReachableDevices("fast", inbox.answer("fast")));
  ASSERT_TRUE(driver.waitUntilIdle(kTimeout));
  EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(400));
  EXPECT_EQ(inbox.entries(), (Strings{"fast:a+", "slow:a+"}));
  EXPECT_EQ(driver.acceptedRequests(), 2U);
}

TEST(SimulatedApplianceDriverTest, ChangesReachEverySubscriptionInOrder) {
  SimulatedApplianceDriver driver;
  Inbox inbox;
  driver.upsertDevice(device("a", true));
  ASSERT_TRUE(driver.subscribeStateChanges({}, "s1", inbox.events("s1"), nullptr));
  ASSERT_TRUE(driver.subscribeStateChanges({"other"}, "s2", inbox.events("s2"), nullptr));
  EXPECT_FALSE(driver.subscribeStateChanges({}, "s1", inbox.events("duplicate"), nullptr));
  driver.setRefuseSubscriptions(true);
  EXPECT_FALSE(driver.subscribeStateChanges({}, "s3", inbox.events("refused"), nullptr));
  EXPECT_EQ(driver.subscriptionCount(), 2U);

  EXPECT_TRUE(driver.setReachable("a", false));
  EXPECT_TRUE(driver.setReachable("a", false));  // no change, no event
  driver.setJsonConnectivityValues(true);
  driver.upsertDevice(device("a", true));     // a replacement with another flag
  driver.upsertDevice(device("new", false));  // a new device is no change
  driver.publishStateChange({"b", "Ns", "inst", "prop", "v"});
  ASSERT_TRUE(driver.waitUntilIdle(kTimeout));
  for (const std::string tag : {"s1:", "s2:"}) {
    EXPECT_EQ(inbox.entries(tag),
              (Strings{tag + "a" + kHealth + "UNREACHABLE", tag + "a" + kHealth + "\"OK\"",
                       tag + "b Ns/inst/prop=v"}));
  }
  EXPECT_EQ(inbox.entries().size(), 6U);
  driver.setRefuseUnsubscriptions(true);
  EXPECT_FALSE(driver.unsubscribeStateChanges("s2"));
}

TEST(SimulatedApplianceDriverTest, UnsubscribeStopsDeliveryAndWaitsForARunningCallback) {
  SimulatedApplianceDriver driver;
  Inbox inbox;
  std::atomic<bool> release{false};
  std::atomic<bool> unsubscribed{false};
  std::atomic<bool> overlapped{false};
  auto holding = [&](const StateChangeEvent& change) {
    inbox.add("s1:" + change.value);
    spinUntil([&] { return release.load(); });
    overlapped = unsubscribed.load();
  };
  ASSERT_TRUE(driver.subscribeStateChanges({}, "s1", holding, nullptr));
  ASSERT_TRUE(driver.subscribeStateChanges({}, "s2", inbox.events("s2"), nullptr));
  driver.publishStateChange({"a", "Ns", "inst", "prop", "held"});
  ASSERT_TRUE(inbox.waitFor("s1:held"));
  std::thread other([&] {
    EXPECT_TRUE(driver.unsubscribeStateChanges("s1"));
    unsubscribed = true;
  });
  spinUntil([&] { return driver.subscriptionCount() == 1; });
  release = true;
  other.join();
  EXPECT_FALSE(overlapped);  // unsubscribing returned only after the callback
  driver.publishStateChange({"a", "Ns", "inst", "prop", "after"});
  ASSERT_TRUE(driver.waitUntilIdle(kTimeout));
  EXPECT_EQ(inbox.entries("s1:"), Strings{"s1:held"});
  EXPECT_EQ(inbox.entries("s2:"), (Strings{"s2:a Ns/inst/prop=held", "s2:a Ns/inst/prop=after"}));
  EXPECT_FALSE(driver.unsubscribeStateChanges("s1"));
}

TEST(SimulatedApplianceDriverTest, CallbacksMayReenterTheDriver) {
  SimulatedApplianceDriver driver;
  Inbox inbox;
  driver.upsertDevice(device("a", true));
  auto reentering = [&](const StateChangeEvent& change) {
    inbox.add("event:" + change.value);
    if (change.value == "UNREACHABLE") {
      EXPECT_TRUE(driver.getReachableDevices("r", inbox.answer("answer")));
      EXPECT_TRUE(driver.setReachable("a", true));
    } else {
      EXPECT_TRUE(driver.unsubscribeStateChanges("s"));
    }
  };
  ASSERT_TRUE(driver.subscribeStateChanges({}, "s", reentering, nullptr));
  driver.setReachable("a", false);
  ASSERT_TRUE(driver.waitUntilIdle(kTimeout));
  Strings entries = inbox.entries();
  std::sort(entries.begin(), entries.end());
  EXPECT_EQ(entries, (Strings{"answer:a+", "event:OK", "event:UNREACHABLE"}));
  EXPECT_EQ(driver.subscriptionCount(), 0U);

  ASSERT_TRUE(driver.getReachableDevices("r", [&](const std::vector<DiscoveredDevice>&) {
    driver.shutdown();  // on the driver's own thread
    inbox.add("shut down");
  }));
  EXPECT_TRUE(inbox.waitFor("shut down"));
}

TEST(SimulatedApplianceDriverTest, ShutdownDropsUndeliveredAnswersAndRefusesLaterWork) {
  SimulatedApplianceDriver driver;
  Inbox inbox;
  ASSERT_TRUE(driver.subscribeStateChanges({}, "s", inbox.events("s"), nullptr));
  driver.setAnswerLatency(std::chrono::hours(1));
  ASSERT_TRUE(driver.getReachableDevices("r", inbox.answer("dropped")));
  EXPECT_FALSE(driver.waitUntilIdle(milliseconds(20)));
  EXPECT_EQ(driver.pendingAnswers(), 1U);

  driver.shutdown();
  EXPECT_EQ(driver.pendingAnswers(), 0U);
  EXPECT_FALSE(driver.getReachableDevices("r", inbox.answer("late")));
  EXPECT_FALSE(driver.subscribeStateChanges({}, "t", inbox.events("t"), nullptr));
  driver.publishStateChange({"a", "Ns", "inst", "prop", "late"});
  EXPECT_TRUE(driver.waitUntilIdle(kTimeout));
  EXPECT_TRUE(driver.unsubscribeStateChanges("s"));
  driver.shutdown();
  EXPECT_EQ(driver.acceptedRequests(), 1U);
  EXPECT_EQ(inbox.entries(), Strings{});
}

}  // namespace
}  // namespace veranda::applianceDriver
