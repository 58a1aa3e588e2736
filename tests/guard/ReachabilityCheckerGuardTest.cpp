#include "reachabilityCache/ReachabilityCheckerGuard.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "LogRecorder.h"
#include "reachabilityCache/ApplianceDriverReachabilityChecker.h"
#include "reachabilityCache/ReachabilityCache.h"
#include "reachabilityCache/testing/FakeChrProvider.h"
#include "reachabilityCache/testing/FakeReachabilityChecker.h"
#include "reachabilityCache/testing/RecordingListener.h"

namespace veranda::reachabilityCache {
namespace {

namespace fakes = veranda::reachabilityCache::testing;
using applianceDriver::DiscoveredDevice;
using applianceDriver::StateChangeEvent;
using ::testing::ElementsAre;
using Results = std::vector<ReachabilityCheckResult>;

constexpr std::chrono::milliseconds kWait{5000};
constexpr const char* kZigbee = "PROT_ZIGBEE-ADAPTER";

// A driver that keeps every request and subscription and answers only when
// the test says so, from a thread of its own, as the device's driver may.
class LateDriver : public applianceDriver::IUnifiedApplianceDriver {
 public:
  bool getReachableDevices(
      const std::string& /*requestId*/,
      std::function<void(const std::vector<DiscoveredDevice>&)> onDevices) override {
    std::lock_guard<std::mutex> lock(mutex_);
    requests_.push_back(std::move(onDevices));
    changed_.notify_all();
    return true;
  }
  bool subscribeStateChanges(const std::vector<std::string>& /*endpointIds*/,
                             const std::string& subscriptionId,
                             std::function<void(const StateChangeEvent&)> onStateChange,
                             std::function<void(const std::string&)> /*onError*/) override {
    std::lock_guard<std::mutex> lock(mutex_);
    return subscriptions_.emplace(subscriptionId, std::move(onStateChange)).second;
  }
  bool unsubscribeStateChanges(const std::string& subscriptionId) override {
    std::lock_guard<std::mutex> lock(mutex_);
    return subscriptions_.erase(subscriptionId) == 1;
  }

  bool waitForRequests(std::size_t count) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, kWait, [&] { return requests_.size() >= count; });
  }
  std::size_t subscriptionCount() {
    std::lock_guard<std::mutex> lock(mutex_);
    return subscriptions_.size();
  }
  // Answers every kept request on another thread, then lets go of them.
  void answerAll(const std::vector<DiscoveredDevice>& devices) {
    std::unique_lock<std::mutex> lock(mutex_);
    auto requests = std::move(requests_);
    lock.unlock();
    std::thread([&] {
      for (auto& request : requests) {
        request(devices);
      }
      requests.clear();
    }).join();
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::function<void(const std::vector<DiscoveredDevice>&)>> requests_;
  std::map<std::string, std::function<void(const StateChangeEvent&)>> subscriptions_;
};

// Records the observer calls in order.
struct RecordingObserver : ReachabilityCheckerGuard::Observer {
  void onCheckStarting() override { add("starting"); }
  void onResultsArriving(const Results& results) override {
    add("arriving " + std::to_string(results.size()));
  }
  void onResultsApplied(const Results& results) override {
    add("applied " + std::to_string(results.size()));
  }
  void add(const std::string& call) {
    std::lock_guard<std::mutex> lock(mutex);
    calls.push_back(call);
  }
  std::mutex mutex;
  std::vector<std::string> calls;
};

TEST(ReachabilityCheckerGuardTest, ALateAnswerAfterTheCacheIsGoneFindsItsCheckerAndNothingElse) {
  LateDriver driver;
  auto checker = std::make_shared<ApplianceDriverReachabilityChecker>(driver);
  const std::weak_ptr<IReachabilityChecker> checkerAlive = checker;
  auto guard = std::make_shared<ReachabilityCheckerGuard>(std::move(checker));
  fakes::FakeChrProvider provider({EndpointInfo("ep1", "e1", kZigbee, {})});
  fakes::RecordingListener listener;
  auto cache = std::make_unique<ReachabilityCache>(
      &provider, ReachabilityCache::Config{10, std::chrono::seconds(60), true, guard});
  cache->registerReachabilityListener("l", listener.callback());
  ASSERT_TRUE(driver.waitForRequests(1));  // the first cycle's check is pending

  guard->close();
  cache.reset();
  guard.reset();
  EXPECT_EQ(driver.subscriptionCount(), 0U);  // the teardown still unsubscribed
  EXPECT_FALSE(checkerAlive.expired());       // the pending answer holds it

  fakes::LogRecorder::instance().clear();
  driver.answerAll(
      {{"ep1", "e1", kZigbee, "", true, {}, applianceDriver::ApplianceDriverType::NATIVE}});
  EXPECT_TRUE(checkerAlive.expired());
  EXPECT_EQ(fakes::LogRecorder::instance().countContaining(fakes::kCheckerTag,
                                                           "[processDiscoveredDevices]"),
            1U);
  EXPECT_TRUE(fakes::LogRecorder::instance().linesWithTag(fakes::kUpdaterTag).empty());
  EXPECT_EQ(listener.count(), 0U);
}

TEST(ReachabilityCheckerGuardTest, OpenItPassesEverythingThroughClosedItDropsWhatComesBack) {
  auto fake = std::make_shared<fakes::FakeReachabilityChecker>();
  ReachabilityCheckerGuard guard(fake);
  auto observer = std::make_shared<RecordingObserver>();
  guard.addObserver(observer);
  std::vector<Results> completions;
  std::vector<ReachabilityCheckResult> events;
  const auto complete = [&](const Results& results) { completions.push_back(results); };
  const EndpointInfo lamp("ep1", "e1", kZigbee, {});

  ASSERT_TRUE(guard.checkReachability({lamp}, "r1", complete));
  ASSERT_TRUE(guard.checkReachability({lamp}, "r2", complete));
  ASSERT_TRUE(guard.registerReachabilityUpdateCallback(
      "u", [&](const ReachabilityCheckResult& result) { events.push_back(result); }));
  EXPECT_FALSE(guard.registerReachabilityUpdateCallback("w", nullptr));  // stays empty
  ASSERT_TRUE(fake->completeNextCheck({fakes::makeResult(lamp, true)}));
  EXPECT_EQ(fake->deliverEvent(fakes::makeResult(lamp, false)), 1U);
  ASSERT_EQ(completions.size(), 1U);
  EXPECT_EQ(completions[0][0].entityId, "e1");
  ASSERT_EQ(events.size(), 1U);
  EXPECT_EQ(fake->checkRequests()[1].requestId, "r2");
  EXPECT_THAT(observer->calls, ElementsAre("starting", "starting", "arriving 1", "applied 1"));

  guard.close();
  EXPECT_TRUE(guard.isClosed());
  EXPECT_TRUE(fake->completeNextCheck({fakes::makeResult(lamp, true)}));
  EXPECT_EQ(fake->deliverEvent(fakes::makeResult(lamp, true)), 1U);
  EXPECT_TRUE(guard.checkReachability({lamp}, "r3", complete));  // accepted, not started
  EXPECT_FALSE(guard.registerReachabilityUpdateCallback("v", [](const auto&) {}));
  EXPECT_TRUE(guard.unregisterReachabilityUpdateCallback("u"));
  EXPECT_EQ(completions.size(), 1U);
  EXPECT_EQ(events.size(), 1U);
  EXPECT_EQ(fake->checkRequests().size(), 2U);
  EXPECT_TRUE(fake->registeredCallbackIds().empty());
  EXPECT_EQ(observer->calls.size(), 4U);
}

TEST(ReachabilityCheckerGuardTest, CloseWaitsForACompletionOnAnotherThreadButNotForItself) {
  auto fake = std::make_shared<fakes::FakeReachabilityChecker>();
  ReachabilityCheckerGuard guard(fake);
  std::promise<void> entered;
  std::promise<void> release;
  ASSERT_TRUE(
      guard.checkReachability({EndpointInfo("ep1", "e1", kZigbee, {})}, "r", [&](const Results&) {
        entered.set_value();
        release.get_future().wait();
      }));
  std::thread driverThread([&] { fake->completeNextCheck(Results{}); });
  entered.get_future().wait();
  std::atomic<bool> closeReturned{false};
  std::thread closer([&] {
    guard.close();
    closeReturned = true;
  });
  while (!guard.isClosed()) {
    std::this_thread::yield();
  }
  EXPECT_FALSE(closeReturned);
  release.set_value();
  closer.join();
  driverThread.join();
  EXPECT_TRUE(closeReturned);

  ReachabilityCheckerGuard selfClosing(fake);
  bool closedInside = false;
  ASSERT_TRUE(selfClosing.checkReachability({EndpointInfo("ep1", "e1", kZigbee, {})}, "r",
                                            [&](const Results&) {
                                              selfClosing.close();
                                              closedInside = selfClosing.isClosed();
                                            }));
  fake->completeNextCheck(Results{});
  EXPECT_TRUE(closedInside);
}

}  // namespace
}  // namespace veranda::reachabilityCache
