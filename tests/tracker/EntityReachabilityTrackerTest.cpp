#include "reachabilityCache/EntityReachabilityTracker.h"

#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "TrackerTestSupport.h"

namespace veranda::reachabilityCache::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

// Today's callback, through the constructor that takes it alone.
class LegacyTrackerTest : public TrackerTest {
 protected:
  LegacyTrackerTest() { legacyConstructor = true; }
};

TEST_F(LegacyTrackerTest, EveryChangeOfIsEntityReachableIsHeardOnceAndNothingElse) {
  provider.setEndpoints({endpoint("ep1", "e1"), endpoint("ep2", "e1"), endpoint("ep3", "e3")});
  time.emplace();
  start(true, std::chrono::seconds(3600));

  // The host's pushes: listeners hear nothing.
  tracker->updateEndpoints(
      {record("ep1", "orbt1.veyra.endpoint.e1"), record("ep4", "e4"), record("ep3", "e3", false)});
  EXPECT_THAT(newChanges(2), UnorderedElementsAre(change("e1", true), change("e4", true)));

  // The first cycle sweeps ep4, which the provider does not name.
  time->advance(std::chrono::seconds(1));
  ASSERT_EQ(fake->pendingChecks(), 1U);
  EXPECT_FALSE(cache->isEntityReachable("e4"));
  EXPECT_THAT(newChanges(1), ElementsAre(change("e4", false)));

  // The batch clears ep1 before it adds ep2: listeners hear e1 lost and back,
  // yet e1 is reachable before and after the batch.
  fake->completeNextCheck({makeResult(endpoint("ep1", "e1"), false),
                           makeResult(endpoint("ep2", "e1"), true),
                           makeResult(endpoint("ep3", "e3"), false)});
  EXPECT_TRUE(cache->isEntityReachable("e1"));
  EXPECT_THAT(newChanges(0), IsEmpty());

  // A connectivity event announces ep3 back, but events carry no driver type
  // that makes an entity reachable.
  fake->deliverEvent(event("ep3", true));
  time->runUntilIdle();  // the cache's worker has applied the event
  EXPECT_FALSE(cache->isEntityReachable("e3"));
  // ep2 going offline takes e1 down: heard by both.
  fake->deliverEvent(event("ep2", false));
  time->runUntilIdle();
  EXPECT_THAT(newChanges(1), ElementsAre(change("e1", false)));

  // The host's removals.
  tracker->updateEndpoints({record("ep6", "e6"), record("ep7", "e7")});
  EXPECT_THAT(newChanges(2), UnorderedElementsAre(change("e6", true), change("e7", true)));
  EXPECT_TRUE(tracker->removeEntity("e6"));
  EXPECT_FALSE(tracker->removeEntity("e6"));
  tracker->invalidate();
  EXPECT_THAT(newChanges(2), ElementsAre(change("e6", false), change("e7", false)));

  ASSERT_TRUE(listener.waitForCount(4, WAIT));
  EXPECT_THAT(listener.notifications(),
              ElementsAre(Notification{"ep1", "e1", false}, Notification{"ep2", "e1", true},
                          Notification{"ep3", "e3", true}, Notification{"ep2", "e1", false}));
  EXPECT_THAT(tracker->reportedReachableEntities(), IsEmpty());
}

TEST_F(LegacyTrackerTest, HoldDownReportsALossOnlyOnceItHasLasted) {
  time.emplace();
  start(false, std::chrono::seconds(0), std::chrono::minutes(1));
  tracker->updateEndpoints({record("ep1", "e1")});
  EXPECT_THAT(newChanges(1), ElementsAre(change("e1", true)));

  tracker->removeEntity("e1");
  time->advance(std::chrono::seconds(59));
  tracker->updateEndpoints({record("ep1", "e1")});  // back within the hold-down
  time->advance(std::chrono::minutes(5));
  EXPECT_TRUE(tracker->reportedReachable("e1"));

  tracker->removeEntity("e1");
  time->advance(std::chrono::milliseconds(59999));
  EXPECT_TRUE(tracker->reportedReachable("e1"));
  time->advance(std::chrono::milliseconds(1));
  EXPECT_THAT(newChanges(1), ElementsAre(change("e1", false)));
  EXPECT_FALSE(tracker->reportedReachable("orbt1.veyra.endpoint.e1"));
}

// Closes the guard as a check's results arrive, after the observers added
// before it have heard them arriving.
class ClosingObserver : public ReachabilityCheckerGuard::Observer {
 public:
  explicit ClosingObserver(ReachabilityCheckerGuard& guard) : guard_(guard) {}
  void onCheckStarting() override {}
  void onResultsArriving(const std::vector<ReachabilityCheckResult>& /*results*/) override {
    guard_.close();
  }
  void onResultsApplied(const std::vector<ReachabilityCheckResult>& /*results*/) override {}

 private:
  ReachabilityCheckerGuard& guard_;
};

// Results dropped because the guard closed as they arrived still end their
// batch for the tracker: the entities they named go on being judged.
TEST_F(LegacyTrackerTest, ResultsDroppedByCloseLeaveNoEntityUnjudged) {
  provider.setEndpoints({endpoint("ep1", "e1")});
  time.emplace();
  start(true, std::chrono::seconds(3600));
  tracker->updateEndpoints({record("ep1", "e1")});
  EXPECT_THAT(newChanges(1), ElementsAre(change("e1", true)));
  guard->addObserver(std::make_shared<ClosingObserver>(*guard));

  time->advance(std::chrono::seconds(1));
  ASSERT_EQ(fake->pendingChecks(), 1U);
  fake->completeNextCheck({makeResult(endpoint("ep1", "e1"), false)});
  EXPECT_TRUE(cache->isEntityReachable("e1"));  // the cache did not hear them

  EXPECT_TRUE(tracker->removeEntity("e1"));
  EXPECT_THAT(newChanges(1), ElementsAre(change("e1", false)));
  EXPECT_FALSE(tracker->reportedReachable("e1"));
}

// Host pushes, check completions and connectivity events race; each entity's
// changes must alternate, and once everything is applied the tracker's view
// is the cache's.
TEST_F(LegacyTrackerTest, RacingChangesAreHeardInOrderPerEntityAndEndInTheCachesState) {
  const std::vector<std::string> entities = {"e0", "e1", "e2"};
  provider.setEndpoints(
      {endpoint("ep-e0", "e0"), endpoint("ep-e1", "e1"), endpoint("ep-e2", "e2")});
  LogRecorder::instance().setMode(LogCapture::Mode::SILENCE);  // cycles run back to back
  fake->setResponder([](const EndpointInfo& e) {
    static thread_local std::mt19937 random(7);
    return makeResult(e, random() % 2 == 0);
  });
  start(true, std::chrono::seconds(0));  // cycles back to back after the first second
  ASSERT_TRUE(fake->waitForCheckRequests(1, WAIT));

  auto race = [&](unsigned seed) {
    std::mt19937 random(seed);
    for (int i = 0; i < 150; ++i) {
      const std::string& entity = entities[random() % entities.size()];
      const unsigned int pick = random() % 4;
      if (pick == 0) {
        tracker->updateEndpoints({record("ep-" + entity, entity)});
      } else if (pick == 1) {
        tracker->removeEntity(entity);
      } else {
        fake->deliverEvent(event("ep-" + entity, pick == 2));
      }
    }
  };
  std::thread first(race, 1);
  std::thread second(race, 2);
  first.join();
  second.join();

  // Cut off further answers, then let two more cycles run: everything queued
  // before has been applied.
  guard->close();
  ASSERT_TRUE(provider.waitForQueries(provider.queryCount() + 2, WAIT));
  tracker->updateEndpoints({});

  std::map<std::string, bool> last;
  for (const Notification& heardChange : heard.notifications()) {
    const auto previous = last.find(heardChange.entityId);
    EXPECT_NE(previous == last.end() ? false : previous->second, heardChange.isReachable)
        << heardChange.entityId;
    last[heardChange.entityId] = heardChange.isReachable;
  }
  for (const std::string& entity : entities) {
    EXPECT_EQ(tracker->reportedReachable(entity), cache->isEntityReachable(entity)) << entity;
    EXPECT_EQ(last[entity], cache->isEntityReachable(entity)) << entity;
  }
}

}  // namespace
}  // namespace veranda::reachabilityCache::test
