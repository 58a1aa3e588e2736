// The state a UI shows: unknown until judged, the cause of each change and its
// times on virtual time; and targeted judging checked against the cache.
#include <algorithm>
#include <chrono>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "TrackerTestSupport.h"

namespace veranda::reachabilityCache::test {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr auto UNKNOWN = EntityReachability::UNKNOWN;
constexpr auto REACHABLE = EntityReachability::REACHABLE;
constexpr auto UNREACHABLE = EntityReachability::UNREACHABLE;

// A state at virtual times given in milliseconds.
TrackedEntityState stateAt(const std::string& entityId, EntityReachability reachability,
                           ReachabilityCause cause, int64_t sinceMs,
                           std::optional<int64_t> lastSeenMs) {
  TrackedEntityState state{entityId, reachability, cause,
                           TrackedEntityState::TimePoint(milliseconds(sinceMs)), std::nullopt};
  if (lastSeenMs) {
    state.lastSeenReachable = TrackedEntityState::TimePoint(milliseconds(*lastSeenMs));
  }
  return state;
}

TEST_F(TrackerTest, EachChangeTellsItsCauseSinceWhenAndWhenLastSeenReachable) {
  provider.setEndpoints({endpoint("ep0", "e0"), endpoint("ep1", "e1"), endpoint("ep2", "e2")});
  time.emplace();
  makeCache(true, seconds(60));
  // Held by the cache before the tracker starts: judged at once.
  cache->updateEndpoints({record("ep0", "e0"), record("ep9", "e9", false)});
  tracker = makeTracker({});
  EXPECT_THAT(states.take(),
              ElementsAre(stateAt("e0", REACHABLE, ReachabilityCause::TRACKING_STARTED, 0, 0),
                          stateAt("e9", UNREACHABLE, ReachabilityCause::TRACKING_STARTED, 0, {})));
  EXPECT_EQ(tracker->state("e1"), stateAt("e1", UNKNOWN, ReachabilityCause::NONE, 0, {}));

  time->advance(milliseconds(400));
  tracker->updateEndpoints({record("ep5", "e5")});
  EXPECT_THAT(states.take(),
              ElementsAre(stateAt("e5", REACHABLE, ReachabilityCause::HOST_CHANGE, 400, 400)));

  // The first cycle sweeps ep5 and ep9, which the provider does not name; e9
  // was unreachable already.
  time->advance(milliseconds(600));
  EXPECT_THAT(
      states.take(),
      ElementsAre(stateAt("e5", UNREACHABLE, ReachabilityCause::DROPPED_BY_PROVIDER, 1000, 400)));

  // Its answer: e1 judged reachable, e2 judged unreachable (never held by the
  // cache, yet no longer unknown), e0 confirmed without a change.
  time->advance(milliseconds(200));
  fake->completeNextCheck({makeResult(endpoint("ep0", "e0"), true),
                           makeResult(endpoint("ep1", "e1"), true),
                           makeResult(endpoint("ep2", "e2"), false)});
  EXPECT_THAT(states.take(),
              ElementsAre(stateAt("e1", REACHABLE, ReachabilityCause::CYCLE_RESULT, 1200, 1200),
                          stateAt("e2", UNREACHABLE, ReachabilityCause::CYCLE_RESULT, 1200, {})));
  EXPECT_EQ(tracker->state("e0"),
            stateAt("e0", REACHABLE, ReachabilityCause::TRACKING_STARTED, 0, 1200));

  time->advance(milliseconds(300));
  fake->deliverEvent(event("ep1", false));
  time->runUntilIdle();
  EXPECT_THAT(
      states.take(),
      ElementsAre(stateAt("e1", UNREACHABLE, ReachabilityCause::CONNECTIVITY_EVENT, 1500, 1200)));

  // A change made on the cache directly is told at the next settle point.
  time->advance(milliseconds(200));
  cache->removeEntity("e0");
  time->advance(milliseconds(100));
  EXPECT_THAT(states.take(), IsEmpty());
  tracker->updateEndpoints({});
  EXPECT_THAT(states.take(),
              ElementsAre(stateAt("e0", UNREACHABLE, ReachabilityCause::HOST_CHANGE, 1800, 1200)));

  // Today's callback heard only the changes from or to reachable.
  EXPECT_THAT(heard.notifications(),
              ElementsAre(change("e0", true), change("e5", true), change("e5", false),
                          change("e1", true), change("e1", false), change("e0", false)));
}

TEST_F(TrackerTest, HoldDownTellsTheLossWhenItEndsAndKeepsTheLastSighting) {
  time.emplace();
  start(false, seconds(0), std::chrono::minutes(1));
  tracker->updateEndpoints({record("ep1", "e1")});
  time->advance(seconds(5));
  tracker->updateEndpoints({record("ep1", "e1")});  // confirmed, no change
  time->advance(seconds(5));
  tracker->removeEntity("e1");
  time->advance(seconds(10));
  tracker->updateEndpoints({record("ep1", "e1")});  // back within the hold-down
  EXPECT_EQ(tracker->state("e1"),
            stateAt("e1", REACHABLE, ReachabilityCause::HOST_CHANGE, 0, 20000));

  time->advance(seconds(10));
  tracker->removeEntity("e1");
  time->advance(seconds(59));
  EXPECT_EQ(tracker->state("e1").reachability, REACHABLE);
  time->advance(seconds(1));
  EXPECT_THAT(
      states.take(),
      ElementsAre(stateAt("e1", REACHABLE, ReachabilityCause::HOST_CHANGE, 0, 0),
                  stateAt("e1", UNREACHABLE, ReachabilityCause::HOLD_DOWN_ELAPSED, 90000, 20000)));
}

// Random host changes (through the tracker and on the cache), connectivity
// events, sweeps and batches, each followed by a settle point. After each, a
// full reading of the cache says what the tracker must have told meanwhile:
// one state per entity whose state changed, with the step's cause and time,
// none for the others, and today's callback only across "reachable".
TEST_F(TrackerTest, JudgingOnlyWhatChangedTellsWhatAFullReadingOfTheCacheSees) {
  const std::vector<std::string> entities = {"e0", "e1", "e2", "e3", "e4"};
  auto endpointOf = [](const std::string& entity, unsigned which) {
    return entity + (which % 2 == 0 ? "-a" : "-b");
  };
  time.emplace();
  start(true, seconds(10));
  time->advance(seconds(1));
  fake->completeNextCheck(std::vector<ReachabilityCheckResult>{});
  milliseconds nextCycle(11000);  // cycles run only in the steps that are cycles

  std::map<std::string, EntityReachability> shown;  // what the tracker should show
  for (const std::string& entity : entities) {
    shown[entity] = UNKNOWN;
  }
  std::set<std::string> judged;  // named by a change or an answer during the step
  std::string where;             // the step, for failure messages

  const auto checkStep = [&](ReachabilityCause cause) {
    std::map<std::string, TrackedEntityState> told;
    for (const TrackedEntityState& state : states.take()) {
      EXPECT_TRUE(told.emplace(state.entityId, state).second) << state.entityId << where;
    }
    std::map<std::string, bool> flipped;
    for (const Notification& heardChange : newChanges(0)) {
      EXPECT_TRUE(flipped.emplace(heardChange.entityId, heardChange.isReachable).second)
          << heardChange.entityId << where;
    }
    for (const std::string& entity : entities) {
      const bool reachable = cache->isEntityReachable(entity);
      EntityReachability expected = shown[entity];
      if (reachable) {
        expected = REACHABLE;
      } else if (expected == REACHABLE || judged.count(entity) != 0) {
        expected = UNREACHABLE;
      }
      const auto state = told.find(entity);
      if (expected == shown[entity]) {
        EXPECT_TRUE(state == told.end()) << entity << " told without a change" << where;
      } else if (state == told.end()) {
        ADD_FAILURE() << entity << " not told" << where;
      } else {
        EXPECT_EQ(state->second.reachability, expected) << entity << where;
        EXPECT_EQ(state->second.cause, cause) << entity << where;
        EXPECT_EQ(state->second.since, at(time->elapsed())) << entity << where;
      }
      const bool flips = (expected == REACHABLE) != (shown[entity] == REACHABLE);
      const auto heardChange = flipped.find(entity);
      EXPECT_EQ(heardChange != flipped.end(), flips) << entity << where;
      if (heardChange != flipped.end()) {
        EXPECT_EQ(heardChange->second, reachable) << entity << where;
      }
      EXPECT_EQ(tracker->state(entity).reachability, expected) << entity << where;
      shown[entity] = expected;
    }
    // The list holds every judged entity in id order, each as state() tells it.
    std::vector<std::string> listed;
    for (const TrackedEntityState& state : tracker->states()) {
      listed.push_back(state.entityId);
      EXPECT_EQ(tracker->state("orbt1.veyra.endpoint." + state.entityId), state) << where;
    }
    std::vector<std::string> known;
    for (const auto& [entity, reachability] : shown) {
      if (reachability != UNKNOWN) {
        known.push_back(entity);
      }
    }
    EXPECT_EQ(listed, known) << where;
    judged.clear();
  };

  std::mt19937 random(20240611);
  auto pick = [&](std::size_t count) { return static_cast<std::size_t>(random() % count); };
  for (int step = 0; step < 600; ++step) {
    const std::size_t kind = pick(6);
    where = " at step " + std::to_string(step) + " (" + std::to_string(kind) + ")";
    if (kind <= 1) {  // the host pushes records, through the tracker or on the cache
      std::vector<CachedEndpoint> records;
      for (std::size_t count = pick(3) + 1; count > 0; --count) {
        const std::string& entity = entities[pick(entities.size())];
        const std::string id = pick(2) == 0 ? entity : "orbt1.veyra.endpoint." + entity;
        records.push_back(record(endpointOf(entity, random()), id, pick(3) != 0));
        judged.insert(entity);
      }
      if (kind == 0) {
        tracker->updateEndpoints(records);
      } else {
        cache->updateEndpoints(records);
        tracker->updateEndpoints({});
      }
      checkStep(ReachabilityCause::HOST_CHANGE);
    } else if (kind == 2) {  // the host removes an entity, or everything
      if (pick(8) == 0) {
        tracker->invalidate();
      } else {
        tracker->removeEntity(entities[pick(entities.size())]);
      }
      checkStep(ReachabilityCause::HOST_CHANGE);
    } else if (kind == 3) {
      const std::string& entity = entities[pick(entities.size())];
      fake->deliverEvent(event(endpointOf(entity, random()), pick(2) == 0));
      time->runUntilIdle();
      checkStep(ReachabilityCause::CONNECTIVITY_EVENT);
    } else {  // a cycle: its sweep, then its answer
      std::vector<EndpointInfo> named;
      for (const std::string& entity : entities) {
        for (unsigned which = 0; which < 2; ++which) {
          if (pick(4) != 0) {
            named.push_back(endpoint(endpointOf(entity, which), entity));
          }
        }
      }
      provider.setEndpoints(named);
      time->advance(nextCycle - time->elapsed());
      nextCycle += seconds(10);
      ASSERT_EQ(fake->pendingChecks(), 1U) << where;
      checkStep(ReachabilityCause::DROPPED_BY_PROVIDER);
      time->advance(milliseconds(pick(300)));
      fake->completeNextCheck([&](const EndpointInfo& asked) {
        judged.insert(asked.entityId);
        return makeResult(asked, pick(3) != 0);
      });
      checkStep(ReachabilityCause::CYCLE_RESULT);
    }
    time->advance(std::min(milliseconds(pick(500)), nextCycle - time->elapsed() - milliseconds(1)));
  }
}

}  // namespace
}  // namespace veranda::reachabilityCache::test
