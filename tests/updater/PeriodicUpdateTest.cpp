#include <future>

#include "UpdaterTestSupport.h"

namespace veranda::reachabilityCache {
namespace {

using test::LogLine;
using test::LogRecorder;
using ::testing::Contains;
using ::testing::ElementsAre;

// Holds the worker inside queryEndpoints until released.
struct GatedProvider : ICHRProvider {
  std::vector<EndpointInfo> queryEndpoints() override {
    entered.set_value();
    released.get_future().wait();
    return {endpoint("ep1", "e1")};
  }
  std::promise<void> entered;
  std::promise<void> released;
};

TEST_F(UpdaterTest, AnUpdaterNeverStartedLogsItsWholeLife) {
  createUpdater(&provider);
  updater.reset();
  EXPECT_THAT(
      LogRecorder::instance().linesWithTag(test::UPDATER_TAG),
      ElementsAre(updaterLine(4, "[ReachabilityUpdater]"), updaterLine(4, "[~ReachabilityUpdater]"),
                  updaterLine(4, "[stopPeriodicUpdates]"),
                  updaterLine(3,
                              "[disableProactiveUpdates]: action=disableProactiveUpdates "
                              "reason=alreadyDisabled")));
}

TEST_F(UpdaterTest, CycleSweepsStaleEndpointsThenChecksTheProvidersList) {
  store->insertEndpoint(CachedEndpoint(endpoint("ep-old", "e9")));
  store->insertEndpoint(CachedEndpoint(endpoint("ep1", "e1")));
  provider.setEndpoints({endpoint("ep1", "e1"), endpoint("ep2", "e2"), endpoint("ep2", "e2")});
  createUpdater(&provider);
  updater->startPeriodicUpdates(std::chrono::seconds(3600), std::chrono::milliseconds(0));
  time.runUntilIdle();
  ASSERT_EQ(checker->pendingChecks(), 1U);

  // The stale endpoint is gone before any result of the cycle arrives.
  EXPECT_FALSE(store->isEntityPresent("e9"));
  EXPECT_EQ(store->getEntityIdForEndpoint("ep1"), "e1");
  const auto requests = checker->checkRequests();
  EXPECT_EQ(requests[0].requestId, "periodic_0");
  EXPECT_EQ(requests[0].endpoints.size(), 3U);
  EXPECT_THAT(LogRecorder::instance().texts(test::UPDATER_TAG),
              ElementsAre("[ReachabilityUpdater]",
                          "[startPeriodicUpdates]: intervalSeconds=3600 initialDelayMs=0",
                          "[performPeriodicUpdate]: endpointCount=3"));
}

TEST_F(UpdaterTest, EmptyProviderAnswerLeavesTheStoreAndKeepsCycling) {
  store->insertEndpoint(CachedEndpoint(endpoint("ep1", "e1")));
  createUpdater(&provider);
  updater->startPeriodicUpdates(std::chrono::seconds(1), std::chrono::milliseconds(-5));
  time.advance(std::chrono::seconds(2));
  EXPECT_EQ(provider.queryCount(), 3U);
  EXPECT_EQ(store->size(), 1U);
  EXPECT_TRUE(checker->checkRequests().empty());
  EXPECT_THAT(LogRecorder::instance().lines(),
              Contains(updaterLine(5, "[performPeriodicUpdate]: reason=chrQueryReturnedEmpty")));
}

TEST_F(UpdaterTest, NullProviderEndsTheChainWhileTheFlagStaysSet) {
  createUpdater(nullptr);
  updater->startPeriodicUpdates(std::chrono::seconds(1), std::chrono::milliseconds(0));
  time.advance(std::chrono::hours(1));
  EXPECT_THAT(LogRecorder::instance().linesWithTag(test::UPDATER_TAG),
              Contains(updaterLine(6, "[performPeriodicUpdate]: reason=chrProviderNull")).Times(1));
  EXPECT_TRUE(updater->isPeriodicUpdatesRunning());
}

TEST_F(UpdaterTest, RefusedCheckIsLoggedCountedAndRetriedNextCycle) {
  checker->setRefuseChecks(true);
  provider.setEndpoints({endpoint("ep1", "e1")});
  createUpdater(&provider);
  updater->startPeriodicUpdates(std::chrono::seconds(1), std::chrono::milliseconds(0));
  time.advance(std::chrono::seconds(1));
  ASSERT_EQ(checker->checkRequests().size(), 2U);

  const std::vector<LogLine> lines = LogRecorder::instance().lines();
  const auto failure = std::find(
      lines.begin(), lines.end(),
      updaterLine(6, "[performPeriodicUpdate]: requestId=periodic_0 reason=checkStartFailed"));
  ASSERT_LT(failure + 1, lines.end());
  EXPECT_EQ(*(failure + 1),
            (LogLine{4, test::METRIC_TAG,
                     "[Metric]: metricName=ReachabilityCache.CheckFailed updateType=periodic "
                     "reason=checkStartFailed program=762veg6l source=nlef/2/03330473"}));
  EXPECT_EQ(checker->checkRequests()[1].requestId, "periodic_1");
}

TEST_F(UpdaterTest, StopEndsTheChainAndDropsQueuedWork) {
  GatedProvider gated;
  createUpdater(&gated);
  updater->startPeriodicUpdates(std::chrono::seconds(0), std::chrono::milliseconds(0));
  ASSERT_EQ(gated.entered.get_future().wait_for(std::chrono::seconds(5)),
            std::future_status::ready);
  updater->triggerUpdate({endpoint("ep7", "e7")});  // queued behind the running cycle
  updater->stopPeriodicUpdates();
  EXPECT_FALSE(updater->isPeriodicUpdatesRunning());
  gated.released.set_value();
  updater.reset();  // waits for the running cycle

  // The running cycle's own check only: no re-arm, no trigger.
  ASSERT_EQ(checker->checkRequests().size(), 1U);
  EXPECT_EQ(checker->checkRequests()[0].requestId, "periodic_0");
}

TEST_F(UpdaterTest, RequestIdsOfEveryKindComeFromOneCounter) {
  provider.setEndpoints({endpoint("ep1", "e1")});
  createUpdater(&provider);
  updater->triggerUpdate({endpoint("ep1", "e1")});
  time.runUntilIdle();
  ASSERT_TRUE(updater->enableProactiveUpdates());
  updater->startPeriodicUpdates(std::chrono::seconds(3600), std::chrono::milliseconds(0));
  time.runUntilIdle();
  ASSERT_EQ(checker->checkRequests().size(), 2U);

  EXPECT_EQ(checker->checkRequests()[0].requestId, "manual_0");
  EXPECT_EQ(checker->checkRequests()[1].requestId, "periodic_2");
  EXPECT_THAT(checker->registeredCallbackIds(), ElementsAre("reachability_updater_1"));
}

TEST_F(UpdaterTest, ManualTriggerChecksItsListOnceOrOnlyLogsWhenEmpty) {
  checker->setRefuseChecks(true);
  createUpdater(&provider);
  updater->triggerUpdate({});
  updater->triggerUpdate({endpoint("ep1", "e1")});
  time.runUntilIdle();
  // The empty trigger drew no request id.
  EXPECT_THAT(
      LogRecorder::instance().linesWithTag(test::UPDATER_TAG),
      ElementsAre(updaterLine(4, "[ReachabilityUpdater]"), updaterLine(3, "[]: reason=noEndpoints"),
                  updaterLine(6, "[]: requestId=manual_0 reason=checkStartFailed")));
}

}  // namespace
}  // namespace veranda::reachabilityCache
