// The host fakes' promises: a cancelled update callback is not called again
// nor waited for by itself, and a cache's checks and events cannot reach it
// once it is gone.
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

const ReachabilityCheckResult kOffline("ep1", "", "", false, {}, ApplianceDriverType::UNKNOWN);

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
  std::thread delivering([&] { EXPECT_EQ(checker.deliverEvent(kOffline), 1U); });
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
  EXPECT_EQ(checker.deliverEvent(kOffline), 1U);
  EXPECT_EQ(heard.back(), "c left");
}

TEST(FakeReachabilityCheckerTest, ChecksAndEventsOfAGoneCacheThrowInsteadOfReachingIt) {
  test::VirtualTime time;
  auto checker = std::make_shared<FakeReachabilityChecker>();
  test::FakeChrProvider provider({EndpointInfo("ep1", "e1", "PROT_ZIGBEE-ADAPTER", {})});
  const ReachabilityCache::Config config{10, std::chrono::seconds(60), true, checker};
  auto reachable = [](const EndpointInfo& endpoint) { return test::makeResult(endpoint, true); };

  auto cache = std::make_unique<ReachabilityCache>(&provider, config);
  time.advance(std::chrono::seconds(1));
  cache.reset();
  EXPECT_THROW(checker->completeNextCheck(reachable), std::logic_error);

  // A cache made afterwards on the same fake is served as before.
  cache = std::make_unique<ReachabilityCache>(&provider, config);
  time.advance(std::chrono::seconds(1));
  EXPECT_TRUE(checker->completeNextCheck(reachable));
  EXPECT_TRUE(cache->isEntityReachable("e1"));
  EXPECT_EQ(checker->takeCheckRequests().size(), 2U);
  EXPECT_TRUE(checker->checkRequests().empty());

  checker->setRefuseUnregistrations(true);  // the callback outlives its cache
  cache.reset();
  EXPECT_THROW(checker->deliverEvent(kOffline), std::logic_error);
}

}  // namespace
}  // namespace veranda::reachabilityCache
