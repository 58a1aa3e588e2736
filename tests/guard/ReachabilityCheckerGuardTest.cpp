#include "reachabilityCache/ReachabilityCheckerGuard.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <future>
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
#include "reachabilityCache/testing/VirtualTime.h"

namespace veranda::reachabilityCache {
namespace {

using applianceDriver::DiscoveredDevice;
using applianceDriver::StateChangeEvent;
using Results = std::vector<ReachabilityCheckResult>;

constexpr std::chrono::milliseconds WAIT{5000};
constexpr const char* ZIGBEE = "PROT_ZIGBEE-ADAPTER";

// A driver that keeps every request until the test answers it from a thread
// of its own, as the device's driver may, long after the cache is gone.
class LateDriver : public applianceDriver::IUnifiedApplianceDriver {
 public:
  using Answer = std::function<void(const std::vector<DiscoveredDevice>&)>;

  bool getReachableDevices(const std::string& /*requestId*/, Answer onDevices) override {
    std::lock_guard<std::mutex> lock(mutex_);
    requests_.push_back(std::move(onDevices));
    changed_.notify_all();
    return true;
  }
  bool subscribeStateChanges(const std::vector<std::string>& /*endpointIds*/,
                             const std::string& /*subscriptionId*/,
                             std::function<void(const StateChangeEvent&)> /*onStateChange*/,
                             std::function<void(const std::string&)> /*onError*/) override {
    return true;
  }
  bool unsubscribeStateChanges(const std::string& /*subscriptionId*/) override { return true; }

  bool waitForRequest() {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, WAIT, [&] { return !requests_.empty(); });
  }
  // Answers every kept request on another thread, then lets go of them.
  void answerAll(const std::vector<DiscoveredDevice>& devices) {
    std::unique_lock<std::mutex> lock(mutex_);
    std::vector<Answer> requests = std::move(requests_);
    lock.unlock();
    std::thread([&] {
      for (const Answer& request : requests) {
        request(devices);
      }
      requests.clear();
    }).join();
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Answer> requests_;
};

TEST(ReachabilityCheckerGuardTest, ALateAnswerAfterTheCacheIsGoneFindsItsCheckerAndNothingElse) {
  LateDriver driver;
  auto checker = std::make_shared<ApplianceDriverReachabilityChecker>(driver);
  const std::weak_ptr<IReachabilityChecker> checkerAlive = checker;
  auto guard = std::make_shared<ReachabilityCheckerGuard>(std::move(checker));
  test::FakeChrProvider provider({EndpointInfo("ep1", "e1", ZIGBEE, {})});
  test::RecordingListener listener;
  test::VirtualTime time;
  auto cache = std::make_unique<ReachabilityCache>(
      &provider, ReachabilityCache::Config{10, std::chrono::seconds(60), true, guard});
  cache->registerReachabilityListener("l", listener.callback());
  time.advance(std::chrono::seconds(1));
  ASSERT_TRUE(driver.waitForRequest());  // the first cycle's check is pending

  guard->close();
  cache.reset();
  guard.reset();
  EXPECT_FALSE(checkerAlive.expired());  // the pending answer holds it

  test::LogRecorder::instance().clear();
  driver.answerAll(
      {{"ep1", "e1", ZIGBEE, "", true, {}, applianceDriver::ApplianceDriverType::NATIVE}});
  EXPECT_TRUE(checkerAlive.expired());
  EXPECT_EQ(test::LogRecorder::instance().countContaining(test::CHECKER_TAG,
                                                          "[processDiscoveredDevices]"),
            1U);
  EXPECT_TRUE(test::LogRecorder::instance().linesWithTag(test::UPDATER_TAG).empty());
  EXPECT_EQ(listener.count(), 0U);
}

TEST(ReachabilityCheckerGuardTest, OpenItPassesEverythingThroughClosedItDropsWhatComesBack) {
  auto fake = std::make_shared<test::FakeReachabilityChecker>();
  ReachabilityCheckerGuard guard(fake);
  std::vector<Results> completions;
  std::vector<ReachabilityCheckResult> events;
  const auto complete = [&](const Results& results) { completions.push_back(results); };
  const EndpointInfo lamp("ep1", "e1", ZIGBEE, {});

  ASSERT_TRUE(guard.checkReachability({lamp}, "r1", complete));
  ASSERT_TRUE(guard.registerReachabilityUpdateCallback(
      "u", [&](const ReachabilityCheckResult& result) { events.push_back(result); }));
  EXPECT_FALSE(guard.registerReachabilityUpdateCallback("w", nullptr));  // stays empty
  ASSERT_TRUE(fake->completeNextCheck({test::makeResult(lamp, true)}));
  EXPECT_EQ(fake->deliverEvent(test::makeResult(lamp, false)), 1U);
  ASSERT_EQ(completions.size(), 1U);
  EXPECT_EQ(completions[0][0].entityId, "e1");
  EXPECT_EQ(events.size(), 1U);

  // Closed from inside a completion: it does not wait for itself.
  ASSERT_TRUE(guard.checkReachability({lamp}, "r2", [&](const Results&) { guard.close(); }));
  ASSERT_TRUE(guard.checkReachability({lamp}, "r3", complete));
  fake->completeNextCheck(Results{});
  EXPECT_TRUE(guard.isClosed());
  fake->completeNextCheck({test::makeResult(lamp, true)});
  EXPECT_EQ(fake->deliverEvent(test::makeResult(lamp, true)), 1U);
  EXPECT_TRUE(guard.checkReachability({lamp}, "r4", complete));  // accepted, not started
  EXPECT_FALSE(guard.registerReachabilityUpdateCallback("v", [](const auto&) {}));
  EXPECT_TRUE(guard.unregisterReachabilityUpdateCallback("u"));
  EXPECT_EQ(completions.size(), 1U);
  EXPECT_EQ(events.size(), 1U);
  EXPECT_EQ(fake->checkRequests().size(), 3U);
  EXPECT_TRUE(fake->registeredCallbackIds().empty());
}

TEST(ReachabilityCheckerGuardTest, CloseWaitsForACompletionRunningOnAnotherThread) {
  auto fake = std::make_shared<test::FakeReachabilityChecker>();
  ReachabilityCheckerGuard guard(fake);
  std::promise<void> entered;
  std::promise<void> release;
  guard.checkReachability({}, "r", [&](const Results&) {
    entered.set_value();
    release.get_future().wait();
  });
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
}

}  // namespace
}  // namespace veranda::reachabilityCache
