// What a host gets wrong with the raw parts is refused or safe: a guard that
// is not the cache's checker, a tracker that outlives its cache, callbacks
// that throw.
#include <atomic>
#include <chrono>
#include <future>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "TrackerTestSupport.h"

namespace veranda::reachabilityCache::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

// Expects the constructor to throw std::invalid_argument saying `what`, with
// nothing registered with the cache.
void expectRefused(ReachabilityCache& cache, std::shared_ptr<ReachabilityCheckerGuard> guard,
                   const std::string& what) {
  LogRecorder::instance().clear();
  try {
    EntityReachabilityTracker tracker(cache, std::move(guard),
                                      [](const std::string& /*unused*/, bool /*unused*/) {});
    ADD_FAILURE() << "not refused: " << what;
  } catch (const std::invalid_argument& refusal) {
    EXPECT_THAT(refusal.what(), HasSubstr(what));
  }
  EXPECT_EQ(LogRecorder::instance().countContaining(STORE_TAG, "Listener"), 0U);
}

TEST_F(TrackerTest, AGuardThatIsNotTheCachesCheckerIsRefused) {
  makeCache(false, std::chrono::seconds(0));
  expectRefused(*cache, nullptr, "the guard is null, but the cache has a checker");
  expectRefused(*cache, std::make_shared<ReachabilityCheckerGuard>(fake),
                "the guard is not the cache's checker");

  ReachabilityCache unguarded(&provider, {20, std::chrono::seconds(0), false, fake});
  expectRefused(unguarded, guard, "the guard is not the cache's checker");

  // A cache without a checker runs no check: a null guard is its checker.
  ReachabilityCache checkerless(&provider, {20, std::chrono::seconds(0), false, nullptr});
  expectRefused(checkerless, guard, "the guard is not the cache's checker");
  EntityReachabilityTracker pushOnly(
      checkerless, nullptr,
      [heard = heard.callback()](const std::string& entityId, bool reachable) {
        heard("", entityId, reachable);
      });
  pushOnly.updateEndpoints({record("ep1", "e1")});
  EXPECT_THAT(newChanges(1), ElementsAre(change("e1", true)));
}

TEST_F(TrackerTest, ATrackerThatOutlivesItsCacheStopsAndStaysSafe) {
  time.emplace();
  start(false, std::chrono::seconds(0), std::chrono::minutes(1));
  tracker->updateEndpoints({record("ep1", "e1"), record("ep2", "e2")});
  tracker->removeEntity("e1");  // its loss waits out the hold-down
  const std::vector<TrackedEntityState> before = tracker->states();
  states.take();

  guard->close();
  cache.reset();
  LogRecorder::instance().clear();
  time->advance(std::chrono::minutes(2));
  tracker->updateEndpoints({record("ep3", "e3")});
  EXPECT_FALSE(tracker->removeEntity("e2"));
  tracker->invalidate();
  EXPECT_EQ(tracker->states(), before);
  EXPECT_TRUE(tracker->reportedReachable("e1"));
  EXPECT_THAT(states.take(), IsEmpty());

  tracker->close();
  tracker.reset();
  EXPECT_THAT(LogRecorder::instance().lines(), IsEmpty());
}

// A hold-down ends on the tracker's timer thread while the host destroys the
// cache: the destruction waits for the callback under way, and none runs
// after it.
TEST_F(TrackerTest, ACallbackUnderWayFinishesBeforeTheCacheIsGone) {
  for (int round = 0; round < 50; ++round) {
    fake = std::make_shared<FakeReachabilityChecker>();
    guard = std::make_shared<ReachabilityCheckerGuard>(fake);
    makeCache(false, std::chrono::seconds(0));
    std::promise<void> entered;
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    std::atomic<bool> inCallback{false};
    std::atomic<int> calls{0};
    EntityReachabilityTracker::Options options;
    options.onChange = [&](const std::string& /*entityId*/, bool reachable) {
      ++calls;
      if (!reachable) {
        inCallback = true;
        entered.set_value();
        released.wait();
        inCallback = false;
      }
    };
    options.unreachableHoldDown = std::chrono::milliseconds(1);
    tracker = std::make_unique<EntityReachabilityTracker>(*cache, guard, std::move(options));
    tracker->updateEndpoints({record("ep1", "e1")});
    tracker->removeEntity("e1");
    entered.get_future().wait();

    std::atomic<bool> destroying{false};
    std::thread destroyer([&] {
      guard->close();
      destroying = true;
      cache.reset();
      EXPECT_FALSE(inCallback);
    });
    while (!destroying) {
      std::this_thread::yield();
    }
    release.set_value();
    destroyer.join();
    tracker.reset();
    EXPECT_EQ(calls, 2);
  }
}

TEST_F(TrackerTest, ACallbackThatThrowsIsLoggedAndDeliveryGoesOn) {
  makeCache(false, std::chrono::seconds(0));
  EntityReachabilityTracker::Options options;
  options.onChange = [heard = heard.callback()](const std::string& entityId, bool reachable) {
    heard("", entityId, reachable);
    if (entityId == "e1") {
      throw std::runtime_error("display gone");
    }
  };
  options.onStateChange = [record = states.callback()](const TrackedEntityState& state) {
    record(state);
    if (state.entityId == "e2") {
      throw 42;  // what a careless host may throw
    }
  };
  tracker = std::make_unique<EntityReachabilityTracker>(*cache, guard, std::move(options));
  LogRecorder::instance().clear();

  tracker->updateEndpoints({record("ep1", "e1"), record("ep2", "e2"), record("ep3", "e3")});
  tracker->removeEntity("e1");
  EXPECT_THAT(newChanges(4), ElementsAre(change("e1", true), change("e2", true), change("e3", true),
                                         change("e1", false)));
  EXPECT_EQ(states.take().size(), 4U);
  EXPECT_THAT(LogRecorder::instance().linesWithTag(TRACKER_TAG),
              ElementsAre(LogLine{6, TRACKER_TAG,
                                  "[deliver]: event=callbackThrew callback=onChange entityId=e1 "
                                  "what=display gone"},
                          LogLine{6, TRACKER_TAG,
                                  "[deliver]: event=callbackThrew callback=onStateChange "
                                  "entityId=e2 what=(not a std::exception)"},
                          LogLine{6, TRACKER_TAG,
                                  "[deliver]: event=callbackThrew callback=onChange entityId=e1 "
                                  "what=display gone"}));
}

}  // namespace
}  // namespace veranda::reachabilityCache::test
