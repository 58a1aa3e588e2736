// The cache closes a guard that is its checker when it goes, and tells how
// its refresh is going.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "LogRecorder.h"
#include "applianceDriver/SimulatedApplianceDriver.h"
#include "reachabilityCache/ApplianceDriverReachabilityChecker.h"
#include "reachabilityCache/ReachabilityCache.h"
#include "reachabilityCache/ReachabilityCheckerGuard.h"
#include "reachabilityCache/testing/FakeChrProvider.h"
#include "reachabilityCache/testing/FakeReachabilityChecker.h"
#include "reachabilityCache/testing/RecordingListener.h"
#include "reachabilityCache/testing/VirtualTime.h"

namespace veranda::reachabilityCache {
namespace {

using applianceDriver::ApplianceDriverType;
using applianceDriver::DiscoveredDevice;
using applianceDriver::SimulatedApplianceDriver;
using std::chrono::milliseconds;
using std::chrono::seconds;
using test::LogLine;
using test::LogRecorder;

constexpr const char* ZIGBEE = "PROT_ZIGBEE-ADAPTER";

DiscoveredDevice lamp() {
  DiscoveredDevice device;
  device.endpointId = "ep1";
  device.entityId = "e1";
  device.adapterName = ZIGBEE;
  device.isReachable = true;
  device.capabilities = {{"power", "main"}};
  device.driverType = ApplianceDriverType::NATIVE;
  return device;
}

// Every line from the cache's destruction line on.
std::vector<LogLine> linesFromDestruction() {
  const std::vector<LogLine> lines = LogRecorder::instance().lines();
  auto from = lines.begin();
  while (from != lines.end() && from->text.rfind("[~ReachabilityCache]", 0) != 0) {
    ++from;
  }
  return {from, lines.end()};
}

class CacheOverSimulatedDriverTest : public ::testing::Test {
 protected:
  void SetUp() override {
    LogRecorder::instance().clear();
    driver.upsertDevice(lamp());
  }
  void TearDown() override { driver.shutdown(); }

  test::VirtualTime time;  // first: made before the cache and the driver, destroyed after
  SimulatedApplianceDriver driver;
  test::FakeChrProvider provider{{EndpointInfo("ep1", "e1", ZIGBEE, {})}};
  test::RecordingListener listener;
};

TEST_F(CacheOverSimulatedDriverTest, AForgottenCloseIsSafeWhenAStoredConfigKeepsTheGuard) {
  driver.setAnswerLatency(milliseconds(1500));
  const ReachabilityCache::Config config{
      10, seconds(60), true,
      std::make_shared<ReachabilityCheckerGuard>(
          std::make_shared<ApplianceDriverReachabilityChecker>(driver))};
  {
    ReachabilityCache cache(&provider, config);
    ASSERT_TRUE(cache.registerReachabilityListener("l", listener.callback()));
    time.advance(milliseconds(1000));
    ASSERT_EQ(driver.pendingAnswers(), 1U);
  }  // destroyed while the driver owes the first cycle its answer; close() never called

  const auto* guard =
      dynamic_cast<const ReachabilityCheckerGuard*>(config.reachabilityChecker.get());
  EXPECT_TRUE(guard->isClosed());
  time.advance(milliseconds(1500));  // the late answer arrives
  EXPECT_EQ(driver.pendingAnswers(), 0U);
  EXPECT_EQ(listener.count(), 0U);
}

TEST_F(CacheOverSimulatedDriverTest, ClosingTheGuardAddsNoLineToTheTeardown) {
  auto bare = std::make_shared<ApplianceDriverReachabilityChecker>(driver);
  const std::vector<std::shared_ptr<IReachabilityChecker>> checkers{
      bare, std::make_shared<ReachabilityCheckerGuard>(bare)};
  std::vector<std::vector<LogLine>> teardowns;
  for (const auto& checker : checkers) {
    LogRecorder::instance().clear();
    auto cache = std::make_unique<ReachabilityCache>(
        &provider, ReachabilityCache::Config{10, seconds(60), true, checker});
    time.advance(milliseconds(1000));  // one cycle, answered at once
    ASSERT_TRUE(cache->isEntityReachable("e1"));
    cache.reset();
    teardowns.push_back(linesFromDestruction());
  }
  ASSERT_GE(teardowns[0].size(), 5U);
  EXPECT_EQ(teardowns[1], teardowns[0]);
}

TEST_F(CacheOverSimulatedDriverTest, ASecondCacheOnTheDriverDoesNotHearEventsAndSaysSo) {
  auto makeCache = [this] {
    return std::make_unique<ReachabilityCache>(
        &provider,
        ReachabilityCache::Config{10, seconds(60), true,
                                  std::make_shared<ApplianceDriverReachabilityChecker>(driver)});
  };
  auto first = makeCache();
  auto replacement = makeCache();  // made before the old one is destroyed
  EXPECT_TRUE(first->health().hearsConnectivityEvents);
  EXPECT_FALSE(replacement->health().hearsConnectivityEvents);
  first.reset();
  EXPECT_FALSE(replacement->health().hearsConnectivityEvents);  // it never subscribes again

  // It still follows the device at its cycles, but misses the event.
  time.advance(milliseconds(1000));
  EXPECT_TRUE(replacement->isEntityReachable("e1"));
  ASSERT_TRUE(replacement->registerReachabilityListener("l", listener.callback()));
  driver.setReachable("ep1", false);
  time.runUntilIdle();
  EXPECT_EQ(listener.count(), 0U);
  EXPECT_TRUE(replacement->isEntityReachable("e1"));

  replacement.reset();
  EXPECT_TRUE(makeCache()->health().hearsConnectivityEvents);  // made after: subscribed
}

class CacheHealthTest : public ::testing::Test {
 protected:
  std::unique_ptr<ReachabilityCache> makeCache(bool periodic) {
    return std::make_unique<ReachabilityCache>(
        &provider, ReachabilityCache::Config{10, seconds(60), periodic, checker});
  }

  static bool answer(test::FakeReachabilityChecker& checker) {
    return checker.completeNextCheck(
        [](const EndpointInfo& endpoint) { return test::makeResult(endpoint, true); });
  }

  test::VirtualTime time;
  std::shared_ptr<test::FakeReachabilityChecker> checker =
      std::make_shared<test::FakeReachabilityChecker>();
  test::FakeChrProvider provider{{EndpointInfo("ep1", "e1", ZIGBEE, {})}};
};

TEST_F(CacheHealthTest, WithoutRefreshNoEventIsHeardAndNothingIsCounted) {
  const ReachabilityCacheHealth health = makeCache(false)->health();
  EXPECT_FALSE(health.hearsConnectivityEvents);
  EXPECT_EQ(health.checksStarted + health.checksAnswered + health.checksNotStarted +
                health.cyclesAnswered,
            0U);
  EXPECT_EQ(health.lastCycleAnsweredAt, std::chrono::steady_clock::time_point{});
}

TEST_F(CacheHealthTest, CyclesAreCountedWhenStartedAnsweredOrRefused) {
  auto cache = makeCache(true);
  EXPECT_TRUE(cache->health().hearsConnectivityEvents);

  time.advance(milliseconds(1000));
  ReachabilityCacheHealth health = cache->health();
  EXPECT_EQ(health.checksStarted, 1U);
  EXPECT_EQ(health.checksUnanswered(), 1U);
  EXPECT_EQ(health.cyclesAnswered, 0U);

  const auto before = std::chrono::steady_clock::now();
  ASSERT_TRUE(answer(*checker));
  const auto after = std::chrono::steady_clock::now();
  health = cache->health();
  EXPECT_EQ(health.checksAnswered, 1U);
  EXPECT_EQ(health.checksUnanswered(), 0U);
  EXPECT_EQ(health.cyclesAnswered, 1U);
  EXPECT_GE(health.lastCycleAnsweredAt, before);
  EXPECT_LE(health.lastCycleAnsweredAt, after);

  // A cycle whose check the checker refuses, then one it never answers.
  checker->setRefuseChecks(true);
  time.advance(seconds(60));
  checker->setRefuseChecks(false);
  time.advance(seconds(60));
  health = cache->health();
  EXPECT_EQ(health.checksNotStarted, 1U);
  EXPECT_EQ(health.checksStarted, 2U);
  EXPECT_EQ(health.checksUnanswered(), 1U);
  EXPECT_EQ(health.cyclesAnswered, 1U);
}

}  // namespace
}  // namespace veranda::reachabilityCache
