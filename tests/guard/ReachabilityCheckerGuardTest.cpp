#include "reachabilityCache/ReachabilityCheckerGuard.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "LogRecorder.h"
#include "applianceDriver/SimulatedApplianceDriver.h"
#include "reachabilityCache/ApplianceDriverReachabilityChecker.h"
#include "reachabilityCache/ReachabilityCache.h"
#include "reachabilityCache/testing/FakeChrProvider.h"
#include "reachabilityCache/testing/FakeReachabilityChecker.h"
#include "reachabilityCache/testing/RecordingListener.h"
#include "reachabilityCache/testing/VirtualTime.h"

namespace veranda::reachabilityCache {
namespace {

using Results = std::vector<ReachabilityCheckResult>;

constexpr std::chrono::milliseconds WAIT{5000};
constexpr const char* ZIGBEE = "PROT_ZIGBEE-ADAPTER";

TEST(ReachabilityCheckerGuardTest, ALateAnswerAfterTheCacheIsGoneFindsItsCheckerAndNothingElse) {
  test::VirtualTime time;  // first: the driver runs on it too
  applianceDriver::SimulatedApplianceDriver driver;
  driver.upsertDevice(
      {"ep1", "e1", ZIGBEE, "", true, {}, applianceDriver::ApplianceDriverType::NATIVE});
  driver.setHoldAnswers(true);  // the answer comes after the cache is gone
  auto checker = std::make_shared<ApplianceDriverReachabilityChecker>(driver);
  const std::weak_ptr<IReachabilityChecker> checkerAlive = checker;
  auto guard = std::make_shared<ReachabilityCheckerGuard>(std::move(checker));
  test::FakeChrProvider provider({EndpointInfo("ep1", "e1", ZIGBEE, {})});
  test::RecordingListener listener;
  auto cache = std::make_unique<ReachabilityCache>(
      &provider, ReachabilityCache::Config{10, std::chrono::seconds(60), true, guard});
  cache->registerReachabilityListener("l", listener.callback());
  time.advance(std::chrono::seconds(1));
  ASSERT_EQ(driver.pendingAnswers(), 1U);  // the first cycle's check

  guard->close();
  cache.reset();
  guard.reset();
  EXPECT_FALSE(checkerAlive.expired());  // the pending answer holds it

  test::LogRecorder::instance().clear();
  ASSERT_EQ(driver.releaseHeldAnswers(), 1U);
  time.runUntilIdle();
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

// Runs `work` on a thread of its own and waits for it. A deadlock cannot be
// recovered from, so a run that has not finished within WAIT ends the process.
void finishesOrAbort(const std::function<void()>& work, const char* what) {
  std::packaged_task<void()> task(work);
  std::future<void> done = task.get_future();
  std::thread thread(std::move(task));
  if (done.wait_for(WAIT) != std::future_status::ready) {
    std::fprintf(stderr, "deadlock: %s\n", what);
    std::abort();
  }
  thread.join();
  done.get();
}

// Hears the guard's events through functions of the test's choice.
class CallingObserver : public ReachabilityCheckerGuard::Observer {
 public:
  explicit CallingObserver(
      std::function<void()> onCheck, std::function<void()> onArriving = [] {},
      std::function<void()> onApplied = [] {})
      : onCheck_(std::move(onCheck)),
        onArriving_(std::move(onArriving)),
        onApplied_(std::move(onApplied)) {}
  void onCheckStarting() override { onCheck_(); }
  void onResultsArriving(const Results& /*results*/) override { onArriving_(); }
  void onResultsApplied(const Results& /*results*/) override { onApplied_(); }

 private:
  std::function<void()> onCheck_;
  std::function<void()> onArriving_;
  std::function<void()> onApplied_;
};

// A check announced to the observers before close() began, but not yet handed
// on, never reaches the wrapped checker: neither when close() is called by the
// observer itself nor when it is called on another thread meanwhile.
TEST(ReachabilityCheckerGuardTest, NoCheckAnnouncedBeforeCloseReachesTheChecker) {
  const EndpointInfo lamp("ep1", "e1", ZIGBEE, {});
  {
    auto fake = std::make_shared<test::FakeReachabilityChecker>();
    ReachabilityCheckerGuard guard(fake);
    guard.addObserver(std::make_shared<CallingObserver>([&] { guard.close(); }));
    bool completed = false;
    EXPECT_TRUE(guard.checkReachability({lamp}, "r1", [&](const Results&) { completed = true; }));
    EXPECT_TRUE(fake->checkRequests().empty());
    EXPECT_FALSE(completed);
  }
  {
    auto fake = std::make_shared<test::FakeReachabilityChecker>();
    ReachabilityCheckerGuard guard(fake);
    // The check waits inside the guard until close() has begun on this thread.
    std::promise<void> announced;
    guard.addObserver(std::make_shared<CallingObserver>([&] {
      announced.set_value();
      while (!guard.isClosed()) {
        std::this_thread::yield();
      }
    }));
    std::thread checking([&] { EXPECT_TRUE(guard.checkReachability({lamp}, "r1", nullptr)); });
    announced.get_future().wait();
    guard.close();
    checking.join();
    EXPECT_TRUE(fake->checkRequests().empty());
  }
  {
    // Closed as the results arrive: the cache does not hear them, the
    // observer hears the end of what it heard arriving.
    auto fake = std::make_shared<test::FakeReachabilityChecker>();
    ReachabilityCheckerGuard guard(fake);
    bool applied = false;
    guard.addObserver(
        std::make_shared<CallingObserver>([] {}, [&] { guard.close(); }, [&] { applied = true; }));
    bool completed = false;
    ASSERT_TRUE(guard.checkReachability({lamp}, "r1", [&](const Results&) { completed = true; }));
    ASSERT_TRUE(fake->completeNextCheck(Results{}));
    EXPECT_FALSE(completed);
    EXPECT_TRUE(applied);
  }
}

// The same race left to chance, repeated: for ThreadSanitizer, and to catch a
// check or a subscription handed on after close() has returned.
TEST(ReachabilityCheckerGuardTest, CloseRacingTheWorkerNeverLetsACheckThrough) {
  // Counts the calls that arrive after close() has returned.
  class LateCallCounter : public IReachabilityChecker {
   public:
    std::atomic<bool> closeReturned{false};
    std::atomic<int> late{0};
    bool checkReachability(const std::vector<EndpointInfo>& /*endpoints*/,
                           const std::string& /*requestId*/, ResultsCallback callback) override {
      late += closeReturned ? 1 : 0;
      callback({});
      return true;
    }
    bool registerReachabilityUpdateCallback(const std::string& /*callbackId*/,
                                            UpdateCallback /*callback*/) override {
      late += closeReturned ? 1 : 0;
      return true;
    }
    bool unregisterReachabilityUpdateCallback(const std::string& /*callbackId*/) override {
      return true;
    }
  };
  constexpr int ROUNDS = 3000;
  auto counter = std::make_shared<LateCallCounter>();
  for (int round = 0; round < ROUNDS; ++round) {
    counter->closeReturned = false;
    ReachabilityCheckerGuard guard(counter);
    std::atomic<int> completions{0};
    std::thread worker([&] {
      guard.checkReachability({}, "r", [&](const Results&) { ++completions; });
      guard.registerReachabilityUpdateCallback("u", [](const ReachabilityCheckResult&) {});
    });
    guard.close();
    counter->closeReturned = true;
    const int completedAtClose = completions;
    worker.join();
    EXPECT_EQ(completions, completedAtClose);
  }
  EXPECT_EQ(counter->late, 0);
}

// Two completions that each close the guard from inside their callback, on two
// threads at once: neither waits for the other.
TEST(ReachabilityCheckerGuardTest, CallbacksClosingTheGuardAtOnceNeverWaitForEachOther) {
  auto fake = std::make_shared<test::FakeReachabilityChecker>();
  auto guard = std::make_shared<ReachabilityCheckerGuard>(fake);
  std::atomic<int> inside{0};
  const auto closeWhenBothInside = [&](const Results&) {
    ++inside;
    while (inside < 2) {
      std::this_thread::yield();
    }
    guard->close();
  };
  ASSERT_TRUE(guard->checkReachability({}, "r1", closeWhenBothInside));
  ASSERT_TRUE(guard->checkReachability({}, "r2", closeWhenBothInside));
  finishesOrAbort(
      [&] {
        std::thread first([&] { fake->completeNextCheck(Results{}); });
        std::thread second([&] { fake->completeNextCheck(Results{}); });
        first.join();
        second.join();
      },
      "two callbacks closing the guard wait for each other");
  EXPECT_TRUE(guard->isClosed());
  // A host thread's close() still waits for every callback, closing ones included.
  finishesOrAbort([&] { guard->close(); }, "close() after the callbacks");
}

// A guard serves the first cache made over it. A second cache, while the first
// lives or after it, or a cache over a closed guard, would hear nothing once the
// guard is closed: it is refused with an exception instead of freezing silently.
TEST(ReachabilityCheckerGuardTest, ASecondCacheOverTheSameGuardIsRefused) {
  test::VirtualTime time;
  auto fake = std::make_shared<test::FakeReachabilityChecker>();
  auto guard = std::make_shared<ReachabilityCheckerGuard>(fake);
  test::FakeChrProvider provider({EndpointInfo("ep1", "e1", ZIGBEE, {})});
  const ReachabilityCache::Config config{10, std::chrono::seconds(60), true, guard};
  auto first = std::make_unique<ReachabilityCache>(&provider, config);
  test::LogRecorder::instance().clear();
  try {
    ReachabilityCache second(&provider, config);
    FAIL() << "a second cache was accepted";
  } catch (const std::logic_error& error) {
    EXPECT_THAT(error.what(), ::testing::HasSubstr("serves another cache"));
  }
  EXPECT_TRUE(test::LogRecorder::instance().lines().empty());  // refused before it began
  EXPECT_EQ(fake->registeredCallbackIds(), std::vector<std::string>{"reachability_updater_0"});

  // The first cache is unharmed.
  time.advance(std::chrono::seconds(1));
  ASSERT_TRUE(
      fake->completeNextCheck([](const EndpointInfo& e) { return test::makeResult(e, true); }));
  EXPECT_TRUE(first->isEntityReachable("e1"));

  guard->close();
  first.reset();
  EXPECT_THROW(ReachabilityCache(&provider, config), std::logic_error);
  const ReachabilityCache::Config closed{10, std::chrono::seconds(60), false, [] {
                                           auto fresh =
                                               std::make_shared<ReachabilityCheckerGuard>(nullptr);
                                           fresh->close();
                                           return fresh;
                                         }()};
  EXPECT_THROW(ReachabilityCache(&provider, closed), std::logic_error);
}

}  // namespace
}  // namespace veranda::reachabilityCache
