#include "UpdaterTestSupport.h"

namespace veranda::reachabilityCache {
namespace {

using test::LogLine;
using test::LogRecorder;
using test::Notification;
using ::testing::ElementsAre;

using ProactiveUpdateTest = UpdaterTest;

TEST_F(ProactiveUpdateTest, EnableRegistersOnceAndDisableCancels) {
  createUpdater(&provider);
  EXPECT_TRUE(updater->enableProactiveUpdates());
  EXPECT_TRUE(updater->enableProactiveUpdates());
  EXPECT_TRUE(updater->isProactiveUpdatesEnabled());
  EXPECT_THAT(checker->registeredCallbackIds(), ElementsAre("reachability_updater_0"));
  updater->disableProactiveUpdates();
  EXPECT_FALSE(updater->isProactiveUpdatesEnabled());
  EXPECT_TRUE(checker->registeredCallbackIds().empty());
  EXPECT_THAT(LogRecorder::instance().linesWithTag(test::UPDATER_TAG),
              ElementsAre(updaterLine(4, "[ReachabilityUpdater]"),
                          updaterLine(4,
                                      "[enableProactiveUpdates]: action=enableProactiveUpdates "
                                      "callbackId=reachability_updater_0"),
                          updaterLine(3,
                                      "[enableProactiveUpdates]: action=enableProactiveUpdates "
                                      "reason=alreadyEnabled"),
                          updaterLine(4,
                                      "[disableProactiveUpdates]: action=disableProactiveUpdates "
                                      "status=disabled")));
}

TEST_F(ProactiveUpdateTest, RefusedRegistrationIsReportedAndLeavesUpdatesDisabled) {
  checker->setRefuseRegistrations(true);
  createUpdater(&provider);
  LogRecorder::instance().clear();
  EXPECT_FALSE(updater->enableProactiveUpdates());
  EXPECT_FALSE(updater->isProactiveUpdatesEnabled());
  updater->disableProactiveUpdates();
  EXPECT_THAT(
      LogRecorder::instance().lines(),
      ElementsAre(updaterLine(6,
                              "[enableProactiveUpdates]: action=enableProactiveUpdates "
                              "reason=registrationFailed"),
                  LogLine{4, test::METRIC_TAG,
                          "[Metric]: metricName=ReachabilityCache.SubscribeFailed action=enable "
                          "reason=registrationFailed program=762veg6l source=nlef/2/03330473"},
                  updaterLine(3,
                              "[disableProactiveUpdates]: action=disableProactiveUpdates "
                              "reason=alreadyDisabled")));

  // Every attempt draws a fresh id, and ids drawn meanwhile are skipped.
  checker->setRefuseRegistrations(false);
  updater->triggerUpdate({});  // draws no id
  updater->triggerUpdate({endpoint("ep1", "e1")});
  time.runUntilIdle();
  EXPECT_TRUE(updater->enableProactiveUpdates());
  EXPECT_THAT(checker->registeredCallbackIds(), ElementsAre("reachability_updater_2"));
}

TEST_F(ProactiveUpdateTest, EventsAreResolvedToTheirEntityAndAppliedOnTheWorker) {
  store->insertEndpoint(CachedEndpoint("ep1", "orbt1.veyra.endpoint.e1", ZIGBEE,
                                       applianceDriver::ApplianceDriverType::NATIVE, {}));
  createUpdater(&provider);
  ASSERT_TRUE(updater->enableProactiveUpdates());

  const ReachabilityCheckResult offline("ep1", "", "", false, {},
                                        applianceDriver::ApplianceDriverType::NO_DRIVER);
  EXPECT_EQ(checker->deliverEvent(offline), 1U);
  time.runUntilIdle();
  EXPECT_THAT(listener.notifications(), ElementsAre(Notification{"ep1", "e1", false}));
  EXPECT_EQ(LogRecorder::instance().countContaining(
                test::UPDATER_TAG,
                "[processReachabilityResults]: reachable=0 unreachable=1 changed=1 details="
                "\n    ep1 (entityId=e1): unreachable (becameUnreachable)"),
            1U);

  // An event for an unknown endpoint keeps its empty entity id.
  checker->deliverEvent(ReachabilityCheckResult("ep-x", "", "", false, {},
                                                applianceDriver::ApplianceDriverType::NO_DRIVER));
  time.runUntilIdle();
  EXPECT_EQ(LogRecorder::instance().countContaining(
                test::UPDATER_TAG, "ep-x (entityId=): unreachable (alreadyUnreachable)"),
            1U);
}

TEST_F(ProactiveUpdateTest, DestructionCancelsTheSubscription) {
  createUpdater(&provider);
  ASSERT_TRUE(updater->enableProactiveUpdates());
  updater.reset();
  EXPECT_TRUE(checker->registeredCallbackIds().empty());
  EXPECT_EQ(LogRecorder::instance().linesWithTag(test::UPDATER_TAG).back(),
            (updaterLine(
                4, "[disableProactiveUpdates]: action=disableProactiveUpdates status=disabled")));
}

TEST_F(ProactiveUpdateTest, NullCheckerStartsNothingAndDoesNotCrash) {
  updater = std::make_unique<ReachabilityUpdater>(store, nullptr, &provider);
  EXPECT_FALSE(updater->enableProactiveUpdates());
  updater->triggerUpdate({endpoint("ep1", "e1")});
  time.runUntilIdle();
  EXPECT_EQ(LogRecorder::instance().linesWithTag(test::UPDATER_TAG).back(),
            updaterLine(6, "[]: requestId=manual_1 reason=checkStartFailed"));
}

}  // namespace
}  // namespace veranda::reachabilityCache
