#include "reachabilityCache/ReachabilityCacheOwner.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "LogRecorder.h"
#include "applianceDriver/SimulatedApplianceDriver.h"
#include "reachabilityCache/ApplianceDriverReachabilityChecker.h"
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
using test::LogRecorder;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::Field;
using ::testing::IsEmpty;

constexpr const char* ZIGBEE = "PROT_ZIGBEE-ADAPTER";
constexpr milliseconds ANSWER_DELAY{200};
constexpr seconds INTERVAL{60};

DiscoveredDevice device(const std::string& endpointId, const std::string& entityId) {
  DiscoveredDevice device;
  device.endpointId = endpointId;
  device.entityId = entityId;
  device.adapterName = ZIGBEE;
  device.isReachable = true;
  device.capabilities = {{"power", "main"}};
  device.driverType = ApplianceDriverType::NATIVE;
  return device;
}

EndpointInfo endpoint(const std::string& endpointId, const std::string& entityId) {
  return EndpointInfo(endpointId, entityId, ZIGBEE, {{"power", "main"}});
}

CachedEndpoint record(const std::string& endpointId, const std::string& entityId,
                      ApplianceDriverType driverType = ApplianceDriverType::NATIVE) {
  return CachedEndpoint(endpointId, entityId, ZIGBEE, driverType, {{"power", "main"}});
}

// A connectivity event as the checker makes it: no entity, NO_DRIVER.
ReachabilityCheckResult event(const std::string& endpointId, bool reachable) {
  return {endpointId, "", "", reachable, {}, ApplianceDriverType::NO_DRIVER};
}

// What the tracker told, with the virtual time at which it did.
struct Told {
  std::string entityId;
  bool reachable;
  milliseconds at;

  bool operator==(const Told& other) const {
    return entityId == other.entityId && reachable == other.reachable && at == other.at;
  }
};

std::ostream& operator<<(std::ostream& out, const Told& told) {
  return out << "{" << told.entityId << (told.reachable ? " reachable" : " unreachable") << " at "
             << told.at.count() << " ms}";
}

// Owners over the library's checker and a simulated home of two lamps, on
// virtual time.
class OwnerOverSimulatedDriverTest : public ::testing::Test {
 protected:
  void SetUp() override {
    LogRecorder::instance().clear();
    driver.upsertDevice(device("ep1", "e1"));
    driver.upsertDevice(device("ep2", "e2"));
    driver.setAnswerLatency(ANSWER_DELAY);
  }

  void TearDown() override { driver.shutdown(); }

  std::unique_ptr<ReachabilityCacheOwner> makeOwner(bool confirmRecovery) {
    ReachabilityCacheOwner::Options options;
    options.confirmRecovery = confirmRecovery;
    options.tracker.onChange = [this](const std::string& entityId, bool reachable) {
      const std::lock_guard<std::mutex> lock(toldMutex);
      told.push_back({entityId, reachable, time.elapsed()});
    };
    // The tracker's times are virtual time since the test began.
    options.tracker.clock = [this] { return TrackedEntityState::TimePoint(time.elapsed()); };
    auto checker = std::make_shared<ApplianceDriverReachabilityChecker>(driver);
    checkerAlive = checker;
    return std::make_unique<ReachabilityCacheOwner>(
        &provider, ReachabilityCache::Config{10, INTERVAL, true, std::move(checker)},
        std::move(options));
  }

  std::vector<Told> toldSoFar() {
    const std::lock_guard<std::mutex> lock(toldMutex);
    return told;
  }

  test::VirtualTime time;  // first: made before the owners and the driver, destroyed after
  SimulatedApplianceDriver driver;
  test::FakeChrProvider provider{{endpoint("ep1", "e1"), endpoint("ep2", "e2")}};
  std::weak_ptr<IReachabilityChecker> checkerAlive;
  std::mutex toldMutex;
  std::vector<Told> told;
};

TEST_F(OwnerOverSimulatedDriverTest, DestroyedWhileTheDriverOwesAnAnswerNothingReachesTheCache) {
  driver.setAnswerLatency(milliseconds(1500));
  auto owner = makeOwner(true);
  test::RecordingListener listener;
  ASSERT_TRUE(owner->cache().registerReachabilityListener("l", listener.callback()));
  time.advance(seconds(1));
  ASSERT_EQ(driver.pendingAnswers(), 1U);

  owner.reset();
  EXPECT_FALSE(checkerAlive.expired());  // kept for the answer still owed
  EXPECT_EQ(driver.subscriptionCount(), 0U);
  time.advance(milliseconds(1500));
  EXPECT_EQ(driver.pendingAnswers(), 0U);
  EXPECT_TRUE(checkerAlive.expired());
  EXPECT_EQ(listener.count(), 0U);
  EXPECT_THAT(toldSoFar(), IsEmpty());
}

// A lamp goes offline at 10 s and comes back at 20 s; the cycles come at 1 s
// and 61 s and the driver answers each check 200 ms after it started.
TEST_F(OwnerOverSimulatedDriverTest, ABackDeviceIsConfirmedWithinTheAnswerDelayOnlyWhenAsked) {
  for (const bool confirmRecovery : {true, false}) {
    SCOPED_TRACE(confirmRecovery ? "with recovery confirmation" : "without");
    told.clear();
    const milliseconds start = time.elapsed();
    auto owner = makeOwner(confirmRecovery);
    time.advance(seconds(1) + ANSWER_DELAY);
    ASSERT_TRUE(owner->cache().isEntityReachable("e1"));

    time.advance(seconds(10) - ANSWER_DELAY - seconds(1));
    driver.setReachable("ep1", false);
    time.runUntilIdle();
    time.advance(seconds(10));
    driver.setReachable("ep1", true);
    time.runUntilIdle();
    // The event alone names no driver type: the entity is not reachable yet.
    EXPECT_FALSE(owner->cache().isEntityReachable("e1"));
    time.advance(INTERVAL);

    const milliseconds confirmedAt =
        confirmRecovery ? seconds(20) + ANSWER_DELAY : INTERVAL + seconds(1) + ANSWER_DELAY;
    const auto at = [start](milliseconds offset) { return start + offset; };
    EXPECT_THAT(toldSoFar(),
                ElementsAre(Told{"e1", true, at(seconds(1) + ANSWER_DELAY)},
                            Told{"e2", true, at(seconds(1) + ANSWER_DELAY)},
                            Told{"e1", false, at(seconds(10))}, Told{"e1", true, at(confirmedAt)}));
    // The confirmation is the cache's own manual check, and the state says so.
    EXPECT_EQ(LogRecorder::instance().countContaining(test::CHECKER_TAG,
                                                      "requestId=manual_2 status=requestSent"),
              confirmRecovery ? 1U : 0U);
    const TrackedEntityState lamp = owner->entityState("orbt1.veyra.endpoint.e1");
    EXPECT_EQ(lamp.entityId, "e1");
    EXPECT_EQ(lamp.reachability, EntityReachability::REACHABLE);
    EXPECT_EQ(lamp.cause, confirmRecovery ? ReachabilityCause::MANUAL_CHECK_RESULT
                                          : ReachabilityCause::CYCLE_RESULT);
    EXPECT_EQ(lamp.since, TrackedEntityState::TimePoint(at(confirmedAt)));
    EXPECT_EQ(owner->entityStates().size(), 2U);
    owner.reset();
    LogRecorder::instance().clear();
  }
}

TEST_F(OwnerOverSimulatedDriverTest, EntityStatesNeedTrackingButNoCallback) {
  {
    ReachabilityCacheOwner untracked(
        &provider,
        {10, INTERVAL, true, std::make_shared<ApplianceDriverReachabilityChecker>(driver)});
    time.advance(seconds(1) + ANSWER_DELAY);
    ASSERT_TRUE(untracked.cache().isEntityReachable("e1"));
    EXPECT_EQ(untracked.tracker(), nullptr);
    const TrackedEntityState unknown = untracked.entityState("orbt1.veyra.endpoint.e1");
    EXPECT_EQ(unknown.entityId, "e1");
    EXPECT_EQ(unknown.reachability, EntityReachability::UNKNOWN);
    EXPECT_EQ(unknown.cause, ReachabilityCause::NONE);
    EXPECT_THAT(untracked.entityStates(), IsEmpty());
  }
  ReachabilityCacheOwner::Options options;
  options.trackEntities = true;
  ReachabilityCacheOwner tracked(
      &provider, {10, INTERVAL, true, std::make_shared<ApplianceDriverReachabilityChecker>(driver)},
      options);
  ASSERT_NE(tracked.tracker(), nullptr);
  time.advance(seconds(1) + ANSWER_DELAY);
  EXPECT_THAT(tracked.entityStates(), ElementsAre(Field(&TrackedEntityState::entityId, "e1"),
                                                  Field(&TrackedEntityState::entityId, "e2")));
  EXPECT_THAT(tracked.entityStates(),
              Each(Field(&TrackedEntityState::reachability, EntityReachability::REACHABLE)));
  // The owner's changes go through the tracker, which reports them at once.
  EXPECT_TRUE(tracked.removeEntity("e2"));
  EXPECT_EQ(tracked.entityState("e2").reachability, EntityReachability::UNREACHABLE);
  EXPECT_EQ(tracked.entityState("e2").cause, ReachabilityCause::HOST_CHANGE);
}

// Waits until `condition` holds, for at most five seconds of real time.
template <typename Condition>
bool waitFor(Condition condition) {
  const auto deadline = std::chrono::steady_clock::now() + seconds(5);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) {
      return false;
    }
    std::this_thread::sleep_for(milliseconds(1));
  }
  return true;
}

// On the wall clock: owners destroyed at random moments while checks of
// every kind are under way and a device flaps. Nothing is heard once the
// destructor has returned, and the checker goes once the driver has let go
// of it.
TEST(OwnerTeardownTest, DestroyedAtAnyMomentNothingRunsAfterwards) {
  SimulatedApplianceDriver driver;
  driver.upsertDevice(device("ep1", "e1"));
  driver.upsertDevice(device("ep2", "e2"));
  driver.setAnswerLatency(milliseconds(0), milliseconds(3));
  test::FakeChrProvider provider{{endpoint("ep1", "e1"), endpoint("ep2", "e2")}};
  std::atomic<bool> flapping{true};
  std::thread flapper([&] {
    for (bool up = false; flapping; up = !up) {
      driver.setReachable("ep1", up);
      std::this_thread::sleep_for(std::chrono::microseconds(300));
    }
  });

  std::mt19937 random(7);
  for (int round = 0; round < 25; ++round) {
    SCOPED_TRACE(round);
    auto heard = std::make_shared<std::atomic<int>>(0);
    ReachabilityCacheOwner::Options options;
    options.confirmRecovery = true;
    options.tracker.unreachableHoldDown = milliseconds(round % 2);
    options.tracker.onChange = [heard](const std::string& /*entityId*/, bool /*reachable*/) {
      ++*heard;
    };
    auto checker = std::make_shared<ApplianceDriverReachabilityChecker>(driver);
    const std::weak_ptr<IReachabilityChecker> checkerAlive = checker;
    auto owner = std::make_unique<ReachabilityCacheOwner>(
        &provider, ReachabilityCache::Config{10, seconds(1), true, std::move(checker)},
        std::move(options));
    owner->cache().registerReachabilityListener(
        "l", [heard](const std::string&, const std::string&, bool) { ++*heard; });
    for (int refresh = std::uniform_int_distribution<int>(0, 4)(random); refresh > 0; --refresh) {
      owner->updateEndpoints({record("ep" + std::to_string(refresh), "e1")});
      owner->refreshAll();
      std::this_thread::sleep_for(
          std::chrono::microseconds(std::uniform_int_distribution<int>(0, 1500)(random)));
    }

    owner.reset();
    const int atTeardown = *heard;
    ASSERT_TRUE(waitFor([&] { return checkerAlive.expired(); }));
    EXPECT_EQ(*heard, atTeardown);
  }
  flapping = false;
  flapper.join();
  driver.shutdown();
}

// Refresh and recovery confirmation over a hand-driven checker.
class OwnerRefreshTest : public ::testing::Test {
 protected:
  void SetUp() override { LogRecorder::instance().clear(); }

  std::unique_ptr<ReachabilityCacheOwner> makeOwner(bool periodic, bool confirmRecovery) {
    ReachabilityCacheOwner::Options options;
    options.confirmRecovery = confirmRecovery;
    return std::make_unique<ReachabilityCacheOwner>(
        &provider, ReachabilityCache::Config{10, INTERVAL, periodic, checker}, std::move(options));
  }

  // The endpoint ids and the request id of each check requested since the
  // last call.
  std::vector<std::pair<std::string, std::vector<std::string>>> takeChecks() {
    std::vector<std::pair<std::string, std::vector<std::string>>> checks;
    for (const auto& request : checker->takeCheckRequests()) {
      std::vector<std::string> ids;
      for (const EndpointInfo& requested : request.endpoints) {
        ids.push_back(requested.endpointId + "/" + requested.entityId);
      }
      checks.emplace_back(request.requestId, ids);
    }
    return checks;
  }

  test::VirtualTime time;
  std::shared_ptr<test::FakeReachabilityChecker> checker =
      std::make_shared<test::FakeReachabilityChecker>();
  test::FakeChrProvider provider;
};

using Check = std::pair<std::string, std::vector<std::string>>;

TEST_F(OwnerRefreshTest, RefreshChecksWhatTheCacheHoldsThroughManualChecks) {
  auto owner = makeOwner(false, false);
  owner->updateEndpoints(
      {record("ep2", "e2"), record("ep1", "e1"), record("ep3", "orbt1.veyra.endpoint.e1")});
  EXPECT_EQ(owner->refresh("orbt1.veyra.endpoint.e1"), 2U);
  EXPECT_EQ(owner->refresh("nobody"), 0U);
  EXPECT_EQ(owner->refreshAll(), 3U);
  time.runUntilIdle();
  EXPECT_THAT(takeChecks(), ElementsAre(Check{"manual_0", {"ep1/e1", "ep3/e1"}},
                                        Check{"manual_1", {"ep1/e1", "ep3/e1", "ep2/e2"}}));

  // The answers count as any check's, and the health shows them.
  ASSERT_TRUE(checker->completeNextCheck(
      [](const EndpointInfo& requested) { return test::makeResult(requested, false); }));
  EXPECT_FALSE(owner->cache().isEntityReachable("e1"));
  EXPECT_EQ(owner->health().checksStarted, 2U);
  EXPECT_EQ(owner->health().checksUnanswered(), 1U);
  EXPECT_EQ(owner->health().cyclesAnswered, 0U);

  // Closed, it starts nothing, and what was under way is never answered.
  owner->close();
  EXPECT_EQ(owner->refresh("e1"), 0U);
  EXPECT_EQ(owner->refreshAll(), 0U);
  EXPECT_TRUE(checker->completeNextCheck(
      [](const EndpointInfo& requested) { return test::makeResult(requested, true); }));
  EXPECT_TRUE(owner->cache().isEntityReachable("e2"));  // pushed earlier, unchanged
  EXPECT_EQ(owner->health().checksUnanswered(), 1U);
  EXPECT_THAT(takeChecks(), IsEmpty());
}

TEST_F(OwnerRefreshTest, RecoveryChecksOnlyABackEndpointOfAnEntityThatIsNotReachable) {
  auto owner = makeOwner(true, true);
  owner->updateEndpoints({record("ep1", "e1", ApplianceDriverType::NO_DRIVER), record("ep2", "e2"),
                          record("ep3", "e2", ApplianceDriverType::NO_DRIVER)});
  takeChecks();
  ASSERT_EQ(checker->deliverEvent(event("ep1", false)), 1U);  // gone, not back
  ASSERT_EQ(checker->deliverEvent(event("ep3", true)), 1U);   // e2 is reachable through ep2
  ASSERT_EQ(checker->deliverEvent(event("unknown", true)), 1U);
  time.runUntilIdle();
  EXPECT_THAT(takeChecks(), IsEmpty());

  ASSERT_EQ(checker->deliverEvent(event("ep1", true)), 1U);
  time.runUntilIdle();
  EXPECT_THAT(takeChecks(), ElementsAre(Check{"manual_1", {"ep1/e1"}}));
  ASSERT_TRUE(checker->completeNextCheck(
      [](const EndpointInfo& requested) { return test::makeResult(requested, true); }));
  EXPECT_TRUE(owner->cache().isEntityReachable("e1"));

  // Closed, an event no longer starts a check.
  owner->cache().removeEntity("e1");
  owner->updateEndpoints({record("ep1", "e1", ApplianceDriverType::NO_DRIVER)});
  owner->close();
  checker->deliverEvent(event("ep1", true));
  time.runUntilIdle();
  EXPECT_THAT(takeChecks(), IsEmpty());
}

}  // namespace
}  // namespace veranda::reachabilityCache
