// The fake checker keeps the interface's promise for a cancelled update
// callback: no call of it runs elsewhere or starts, and from inside itself
// the cancellation does not wait for itself.
#include "reachabilityCache/testing/FakeReachabilityChecker.h"

#include <gtest/gtest.h>

#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

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

}  // namespace
}  // namespace veranda::reachabilityCache
