#include "UpdaterTestSupport.h"

namespace veranda::reachabilityCache {
namespace {

using test::LogLine;
using test::LogRecorder;
using test::Notification;
using ::testing::ElementsAre;

// Feeds each batch of results to the updater as a manual check's answer.
class ResultProcessingTest : public UpdaterTest {
 protected:
  void SetUp() override {
    UpdaterTest::SetUp();
    createUpdater(&provider);
  }

  // Applies `results` as a manual check's answer and returns its summary line.
  LogLine apply(const std::vector<ReachabilityCheckResult>& results) {
    if (checker->pendingChecks() == 0) {
      updater->triggerUpdate({endpoint("any", "any")});
      time.runUntilIdle();
    }
    LogRecorder::instance().clear();
    EXPECT_TRUE(checker->completeNextCheck(results));
    const auto lines = LogRecorder::instance().linesWithTag(test::UPDATER_TAG);
    EXPECT_FALSE(lines.empty());
    return lines.empty() ? LogLine{} : lines.back();
  }

  static LogLine summary(const std::string& text) {
    return {4, test::UPDATER_TAG, "[processReachabilityResults]: " + text};
  }
};

TEST_F(ResultProcessingTest, EmptyBatchStillWritesTheSummary) {
  EXPECT_EQ(apply({}), summary("reachable=0 unreachable=0 changed=0 details="));
}

TEST_F(ResultProcessingTest, ChangesAreCountedDetailedAndAnnouncedOnce) {
  EXPECT_EQ(apply({reachable("ep1", "e1"), unreachable("ep2", "e2")}),
            summary("reachable=1 unreachable=1 changed=1 details="
                    "\n    ep1 (entityId=e1, adapter=PROT_ZIGBEE-ADAPTER): reachable "
                    "(becameReachable)"
                    "\n    ep2 (entityId=e2): unreachable (alreadyUnreachable)"));
  EXPECT_TRUE(store->isEntityReachable("e1"));
  EXPECT_FALSE(store->isEntityPresent("e2"));  // an unknown unreachable entity is left alone

  EXPECT_EQ(apply({reachable("ep1", "e1", "")}),
            summary("reachable=1 unreachable=0 changed=0 details="
                    "\n    ep1 (entityId=e1): reachable"));

  EXPECT_EQ(apply({unreachable("ep1", "e1")}),
            summary("reachable=0 unreachable=1 changed=1 details="
                    "\n    ep1 (entityId=e1): unreachable (becameUnreachable)"));
  EXPECT_TRUE(store->isEntityPresent("e1"));  // kept, with its capabilities cleared
  EXPECT_FALSE(store->isEntityReachable("e1"));
  EXPECT_EQ(store->getAdapterName("e1", "ep1"), ZIGBEE);

  EXPECT_THAT(listener.notifications(),
              ElementsAre(Notification{"ep1", "e1", true}, Notification{"ep1", "e1", false}));
}

TEST_F(ResultProcessingTest, EachResultIsJudgedAgainstTheStoreAsChangedByTheOnesBefore) {
  EXPECT_EQ(apply({reachable("ep1", "e1"), reachable("ep2", "e1")}),
            summary("reachable=2 unreachable=0 changed=1 details="
                    "\n    ep1 (entityId=e1, adapter=PROT_ZIGBEE-ADAPTER): reachable "
                    "(becameReachable)"
                    "\n    ep2 (entityId=e1, adapter=PROT_ZIGBEE-ADAPTER): reachable"));
  // One endpoint going away leaves the entity reachable through the other, yet
  // the entity counted as reachable before, so the loss is announced.
  apply({unreachable("ep1", "e1")});
  EXPECT_THAT(listener.notifications(),
              ElementsAre(Notification{"ep1", "e1", true}, Notification{"ep1", "e1", false}));
}

TEST_F(ResultProcessingTest, RefusedChangesAreReportedAsInsertFailedWithoutNotifying) {
  auto full = std::make_shared<CacheCore>(1);
  full->insertEndpoint(
      CachedEndpoint("ep1", "e1", ZIGBEE, applianceDriver::ApplianceDriverType::NATIVE, {}));
  store = full;
  checker->dropPendingChecks();
  updater = std::make_unique<ReachabilityUpdater>(store, checker, &provider);
  store->registerReachabilityListener("recorder", listener.callback());

  EXPECT_EQ(apply({reachable("ep2", "e2"), unreachable("ep-unknown", "e1")}),
            summary("reachable=0 unreachable=0 changed=0 details="
                    "\n    ep2 (entityId=e2, adapter=PROT_ZIGBEE-ADAPTER): reachable "
                    "(insertFailed)"
                    "\n    ep-unknown (entityId=e1): unreachable (insertFailed)"));
  EXPECT_TRUE(listener.notifications().empty());
  EXPECT_EQ(LogRecorder::instance().countContaining(test::METRIC_TAG, "CacheFull"), 1U);
}

}  // namespace
}  // namespace veranda::reachabilityCache
