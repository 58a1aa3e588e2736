// The fake checker keeps the interface's promise for a cancelled update
// callback: no call of it runs elsewhere or starts, and from inside itself
// the cancellation does not wait for itself.
#include "reachabilityCache/testing/FakeReachabilityChecker.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "reachabilityCache/ReachabilityCache.h"
#include "reachabilityCache/testing/FakeChrProvider.h"
#include "reachabilityCache/testing/VirtualTime.h"

namespace veranda::reachabilityCache {
namespace {

using applianceDriver::ApplianceDriverType;
using test::FakeReachabilityChecker;

const ReachabilityCheckResult OFFLINE("ep1", "", "", false, {}, ApplianceDriverType::NO_DRIVER);

TEST(FakeReachabilityCheckerTest, AfterUnregisterNoCallbackRunsElsewhereOrStarts) {
  FakeReachabilityChecker checker;
  std::mutex mutex;
  std::vector<std::string> heard;
  auto hear = [&](const std::string& what) {
    std::lock_guard<std::mutex> lock(mutex);
    heard.push_back(what);
  };
  std::promise<void> entered;
  std::promise<void> bGone;
  // "a" runs on the delivering thread until its cancellation has begun.
  ASSERT_TRUE(checker.registerReachabilityUpdateCallback("a", [&](const auto&) {
    entered.set_value();
    bGone.get_future().wait();
    while (!checker.registeredCallbackIds().empty()) {
      std::this_thread::yield();
    }
    hear("a returns");
  }));
  ASSERT_TRUE(checker.registerReachabilityUpdateCallback("b", [&](const auto&) { hear("b"); }));
  std::thread delivering([&] { EXPECT_EQ(checker.deliverEvent(OFFLINE), 1U); });
  entered.get_future().wait();
  EXPECT_TRUE(checker.unregisterReachabilityUpdateCallback("b"));  // not running: at once
  bGone.set_value();
  EXPECT_TRUE(checker.unregisterReachabilityUpdateCallback("a"));  // waits for it
  hear("a unregistered");
  delivering.join();
  EXPECT_EQ(heard, (std::vector<std::string>{"a returns", "a unregistered"}));

  // From inside its own callback it does not wait for itself.
  ASSERT_TRUE(checker.registerReachabilityUpdateCallback("c", [&](const auto&) {
    hear(checker.unregisterReachabilityUpdateCallback("c") ? "c left" : "c stayed");
  }));
  EXPECT_EQ(checker.deliverEvent(OFFLINE), 1U);
  EXPECT_EQ(heard.back(), "c left");
}

// Completing a check of a cache that is gone throws instead of calling into
// freed memory, however the cache's subscription went: refused by the fake,
// or refused because another cache holds the same id.
TEST(FakeReachabilityCheckerTest, AChecksCacheIsKnownWhateverBecameOfItsSubscription) {
  using std::chrono::milliseconds;
  test::VirtualTime time;
  test::FakeChrProvider provider({EndpointInfo("ep1", "e1", "PROT_ZIGBEE-ADAPTER", {})});
  const auto online = [](const EndpointInfo& endpoint) { return test::makeResult(endpoint, true); };
  auto checker = std::make_shared<FakeReachabilityChecker>();
  const ReachabilityCache::Config config{10, std::chrono::seconds(60), true, checker};

  checker->setRefuseRegistrations(true);
  auto unsubscribed = std::make_unique<ReachabilityCache>(&provider, config);
  time.advance(milliseconds(1000));
  ASSERT_EQ(checker->pendingChecks(), 1U);
  unsubscribed.reset();
  EXPECT_THROW(checker->completeNextCheck(online), std::logic_error);
  checker->setRefuseRegistrations(false);

  // Both caches draw the update callback id reachability_updater_0: the second
  // is refused it and keeps checking. Its first check comes 500 ms after the
  // first cache's.
  auto first = std::make_unique<ReachabilityCache>(&provider, config);
  time.advance(milliseconds(500));
  auto second = std::make_unique<ReachabilityCache>(&provider, config);
  time.advance(milliseconds(1000));
  ASSERT_EQ(checker->pendingChecks(), 2U);
  second.reset();
  EXPECT_TRUE(checker->completeNextCheck(online));
  EXPECT_TRUE(first->isEntityReachable("e1"));
  EXPECT_THROW(checker->completeNextCheck(online), std::logic_error);
  EXPECT_EQ(checker->pendingChecks(), 0U);
}

}  // namespace
}  // namespace veranda::reachabilityCache
