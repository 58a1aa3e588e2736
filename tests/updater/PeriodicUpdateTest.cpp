#include <algorithm>
#include <condition_variable>
#include <mutex>

#include "UpdaterTestSupport.h"

namespace veranda::reachabilityCache {
namespace {

using ::testing::ElementsAre;
using testing::LogLine;
using testing::LogRecorder;

// A provider that holds the worker inside queryEndpoints until released.
class GatedProvider : public ICHRProvider {
 public:
  std::vector<EndpointInfo> queryEndpoints() override {
    std::unique_lock<std::mutex> lock(mutex_);
    entered_ = true;
    changed_.notify_all();
    changed_.wait(lock, [this] { return released_; });
    return {endpoint("ep1", "e1")};
  }

  bool waitUntilEntered() {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, kWait, [this] { return entered_; });
  }

  void release() {
    std::lock_guard<std::mutex> lock(mutex_);
    released_ = true;
    changed_.notify_all();
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool entered_ = false;
  bool released_ = false;
};

TEST_F(UpdaterTest, AnUpdaterNeverStartedLogsItsWholeLife) {
  createUpdater(&provider);
  updater.reset();
  EXPECT_THAT(LogRecorder::instance().linesWithTag(testing::kUpdaterTag),
              ElementsAre(LogLine{4, testing::kUpdaterTag, "[ReachabilityUpdater]"},
                          LogLine{4, testing::kUpdaterTag, "[~ReachabilityUpdater]"},
                          LogLine{4, testing::kUpdaterTag, "[stopPeriodicUpdates]"},
                          LogLine{3, testing::kUpdaterTag,
                                  "[disableProactiveUpdates]: action=disableProactiveUpdates "
                                  "reason=alreadyDisabled"}));
}

TEST_F(UpdaterTest, CycleSweepsStaleEndpointsThenChecksTheProvidersList) {
  store->insertEndpoint(CachedEndpoint(endpoint("ep-old", "e9")));
  store->insertEndpoint(CachedEndpoint(endpoint("ep1", "e1")));
  provider.setEndpoints({endpoint("ep1", "e1"), endpoint("ep2", "e2"), endpoint("ep2", "e2")});
  createUpdater(&provider);
  updater->startPeriodicUpdates(std::chrono::seconds(3600), std::chrono::milliseconds(0));
  ASSERT_TRUE(checker->waitForPendingChecks(1, kWait));

  // The stale endpoint is gone before any result of the cycle arrives.
  EXPECT_EQ(store->getEntityIdForEndpoint("ep-old"), "");
  EXPECT_FALSE(store->isEntityPresent("e9"));
  EXPECT_EQ(store->getEntityIdForEndpoint("ep1"), "e1");
  const auto requests = checker->checkRequests();
  ASSERT_EQ(requests.size(), 1U);
  EXPECT_EQ(requests[0].requestId, "periodic_0");
  EXPECT_EQ(requests[0].endpoints.size(), 3U);
  EXPECT_THAT(updaterLines(),
              ElementsAre("[ReachabilityUpdater]",
                          "[startPeriodicUpdates]: intervalSeconds=3600 initialDelayMs=0",
                          "[performPeriodicUpdate]: endpointCount=3"));
  EXPECT_TRUE(updater->isPeriodicUpdatesRunning());
}

TEST_F(UpdaterTest, EmptyProviderAnswerLeavesTheStoreAndKeepsCycling) {
  store->insertEndpoint(CachedEndpoint(endpoint("ep1", "e1")));
  createUpdater(&provider);
  updater->startPeriodicUpdates(std::chrono::seconds(0), std::chrono::milliseconds(-5));
  ASSERT_TRUE(provider.waitForQueries(3, kWait));
  updater->stopPeriodicUpdates();
  EXPECT_EQ(store->size(), 1U);
  EXPECT_TRUE(checker->checkRequests().empty());
  EXPECT_TRUE(LogRecorder::instance().waitFor(
      [](const std::vector<LogLine>& lines) {
        for (const LogLine& line : lines) {
          if (line == LogLine{5, testing::kUpdaterTag,
                              "[performPeriodicUpdate]: reason=chrQueryReturnedEmpty"}) {
            return true;
          }
        }
        return false;
      },
      kWait));
}

TEST_F(UpdaterTest, NullProviderEndsTheChainWhileTheFlagStaysSet) {
  createUpdater(nullptr);
  updater->startPeriodicUpdates(std::chrono::seconds(0), std::chrono::milliseconds(0));
  ASSERT_TRUE(waitForUpdaterLine("reason=chrProviderNull"));
  drainExecutor();
  EXPECT_EQ(LogRecorder::instance().countContaining(testing::kUpdaterTag, "chrProviderNull"), 1U);
  EXPECT_TRUE(updater->isPeriodicUpdatesRunning());
  EXPECT_TRUE(checker->checkRequests().empty());
}

TEST_F(UpdaterTest, RefusedCheckIsLoggedCountedAndRetriedNextCycle) {
  checker->setRefuseChecks(true);
  provider.setEndpoints({endpoint("ep1", "e1")});
  createUpdater(&provider);
  updater->startPeriodicUpdates(std::chrono::seconds(0), std::chrono::milliseconds(0));
  ASSERT_TRUE(checker->waitForCheckRequests(2, kWait));
  updater->stopPeriodicUpdates();

  const std::vector<LogLine> lines = LogRecorder::instance().lines();
  const LogLine failure{6, testing::kUpdaterTag,
                        "[performPeriodicUpdate]: requestId=periodic_0 reason=checkStartFailed"};
  const LogLine metric{4, testing::kMetricTag,
                       "[Metric]: metricName=ReachabilityCache.CheckFailed updateType=periodic "
                       "reason=checkStartFailed program=762veg6l source=nlef/2/03330473"};
  const auto failureAt = std::find(lines.begin(), lines.end(), failure);
  ASSERT_NE(failureAt, lines.end());
  ASSERT_NE(failureAt + 1, lines.end());
  EXPECT_EQ(*(failureAt + 1), metric);
  EXPECT_EQ(checker->checkRequests()[1].requestId, "periodic_1");
}

TEST_F(UpdaterTest, StopEndsTheChainAndDropsQueuedWork) {
  GatedProvider gated;
  createUpdater(&gated);
  updater->startPeriodicUpdates(std::chrono::seconds(0), std::chrono::milliseconds(0));
  ASSERT_TRUE(gated.waitUntilEntered());
  updater->triggerUpdate({endpoint("ep7", "e7")});  // queued behind the running cycle
  updater->stopPeriodicUpdates();
  EXPECT_FALSE(updater->isPeriodicUpdatesRunning());
  gated.release();
  updater->stopPeriodicUpdates();  // twice is harmless

  checker->dropPendingChecks();
  updater.reset();  // waits for the running cycle
  const auto requests = checker->checkRequests();
  ASSERT_EQ(requests.size(), 1U);  // the running cycle's own check, no re-arm, no trigger
  EXPECT_EQ(requests[0].requestId, "periodic_0");
  EXPECT_EQ(LogRecorder::instance().countContaining(testing::kUpdaterTag, "[stopPeriodicUpdates]"),
            3U);
}

TEST_F(UpdaterTest, RequestIdsOfEveryKindComeFromOneCounter) {
  provider.setEndpoints({endpoint("ep1", "e1")});
  createUpdater(&provider);
  updater->triggerUpdate({endpoint("ep1", "e1")});
  ASSERT_TRUE(checker->waitForCheckRequests(1, kWait));
  ASSERT_TRUE(updater->enableProactiveUpdates());
  updater->startPeriodicUpdates(std::chrono::seconds(3600), std::chrono::milliseconds(0));
  ASSERT_TRUE(checker->waitForCheckRequests(2, kWait));

  const auto requests = checker->checkRequests();
  EXPECT_EQ(requests[0].requestId, "manual_0");
  EXPECT_EQ(requests[1].requestId, "periodic_2");
  EXPECT_THAT(checker->registeredCallbackIds(), ElementsAre("reachability_updater_1"));
}

TEST_F(UpdaterTest, ManualTriggerChecksItsListOnceOrOnlyLogsWhenEmpty) {
  checker->setRefuseChecks(true);
  createUpdater(&provider);
  updater->triggerUpdate({});
  updater->triggerUpdate({endpoint("ep1", "e1")});
  ASSERT_TRUE(LogRecorder::instance().waitForLine(testing::kMetricTag, "updateType=manual", kWait));
  const auto lines = LogRecorder::instance().linesWithTag(testing::kUpdaterTag);
  ASSERT_GE(lines.size(), 3U);
  // The empty trigger drew no request id.
  EXPECT_EQ(std::vector<LogLine>(lines.end() - 2, lines.end()),
            (std::vector<LogLine>{
                {3, testing::kUpdaterTag, "[]: reason=noEndpoints"},
                {6, testing::kUpdaterTag, "[]: requestId=manual_0 reason=checkStartFailed"}}));
  EXPECT_EQ(checker->checkRequests().size(), 1U);
}

}  // namespace
}  // namespace veranda::reachabilityCache
