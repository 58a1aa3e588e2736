// Shared set-up of the tracker tests: a cache over a hand-driven checker
// behind a guard, with a listener and a tracker that record what they hear.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <memory>
#include <mutex>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "LogRecorder.h"
#include "reachabilityCache/EntityReachabilityTracker.h"
#include "reachabilityCache/testing/FakeChrProvider.h"
#include "reachabilityCache/testing/FakeReachabilityChecker.h"
#include "reachabilityCache/testing/RecordingListener.h"
#include "reachabilityCache/testing/VirtualTime.h"

namespace veranda::reachabilityCache {

// NOLINTNEXTLINE(readability-identifier-naming): the name GoogleTest looks up.
inline void PrintTo(const TrackedEntityState& state, std::ostream* out) {
  *out << "{" << state.entityId << ", " << toString(state.reachability) << ", "
       << toString(state.cause) << ", since "
       << std::chrono::duration_cast<std::chrono::milliseconds>(state.since.time_since_epoch())
              .count()
       << " ms, last seen ";
  if (state.lastSeenReachable) {
    *out << std::chrono::duration_cast<std::chrono::milliseconds>(
                state.lastSeenReachable->time_since_epoch())
                .count()
         << " ms}";
  } else {
    *out << "never}";
  }
}

namespace test {

inline constexpr std::chrono::milliseconds WAIT{5000};
inline constexpr const char* ZIGBEE = "PROT_ZIGBEE-ADAPTER";

inline EndpointInfo endpoint(const std::string& endpointId, const std::string& entityId) {
  return EndpointInfo(endpointId, entityId, ZIGBEE, {{"power", "main"}});
}

// A record that makes its entity reachable (NATIVE), or one that does not
// (NO_DRIVER).
inline CachedEndpoint record(const std::string& endpointId, const std::string& entityId,
                             bool reachable = true) {
  return CachedEndpoint(endpointId, entityId, ZIGBEE,
                        reachable ? applianceDriver::ApplianceDriverType::NATIVE
                                  : applianceDriver::ApplianceDriverType::NO_DRIVER,
                        {{"power", "main"}});
}

// A connectivity event as the checker makes it: no entity, NO_DRIVER.
inline ReachabilityCheckResult event(const std::string& endpointId, bool reachable) {
  return {endpointId, "", "", reachable, {}, applianceDriver::ApplianceDriverType::NO_DRIVER};
}

inline Notification change(const std::string& entityId, bool reachable) {
  return {"", entityId, reachable};
}

// A tracker's state callback that keeps what it hears.
class StateRecorder {
 public:
  EntityReachabilityTracker::StateCallback callback() {
    return [this](const TrackedEntityState& state) {
      const std::lock_guard<std::mutex> lock(mutex_);
      states_.push_back(state);
    };
  }

  // What arrived since the last call.
  std::vector<TrackedEntityState> take() {
    const std::lock_guard<std::mutex> lock(mutex_);
    std::vector<TrackedEntityState> taken;
    taken.swap(states_);
    return taken;
  }

 private:
  std::mutex mutex_;
  std::vector<TrackedEntityState> states_;
};

class TrackerTest : public ::testing::Test {
 protected:
  using TimePoint = TrackedEntityState::TimePoint;

  void SetUp() override { LogRecorder::instance().clear(); }

  void TearDown() override {
    LogRecorder::instance().setMode(LogCapture::Mode::COLLECT);
    if (tracker) {
      tracker->close();
    }
    guard->close();
    fake->dropPendingChecks();
  }

  // The cache, with the recording listener, and a tracker whose callbacks
  // are `heard` and `states`, whose clock is virtual time when `time` runs.
  void start(bool periodic, std::chrono::seconds interval,
             std::chrono::milliseconds holdDown = {}) {
    makeCache(periodic, interval);
    tracker = makeTracker(holdDown);
  }

  void makeCache(bool periodic, std::chrono::seconds interval) {
    cache = std::make_unique<ReachabilityCache>(
        &provider, ReachabilityCache::Config{20, interval, periodic, guard});
    cache->registerReachabilityListener("listener", listener.callback());
  }

  std::unique_ptr<EntityReachabilityTracker> makeTracker(std::chrono::milliseconds holdDown) {
    EntityReachabilityTracker::ChangeCallback onChange =
        [heard = heard.callback()](const std::string& entityId, bool reachable) {
          heard("", entityId, reachable);
        };
    if (legacyConstructor) {
      return std::make_unique<EntityReachabilityTracker>(*cache, guard, std::move(onChange),
                                                         holdDown);
    }
    EntityReachabilityTracker::Options options;
    options.onChange = std::move(onChange);
    options.onStateChange = states.callback();
    options.unreachableHoldDown = holdDown;
    if (time) {
      options.clock = [this] { return at(time->elapsed()); };
    }
    return std::make_unique<EntityReachabilityTracker>(*cache, guard, std::move(options));
  }

  // A time of the tracker's clock on virtual time.
  static TimePoint at(std::chrono::milliseconds elapsed) { return TimePoint(elapsed); }

  // The changes heard since the last call, once there are `expected` of them:
  // a change may be delivered by a thread that was delivering already.
  std::vector<Notification> newChanges(std::size_t expected) {
    EXPECT_TRUE(heard.waitForCount(seen + expected, WAIT));
    std::vector<Notification> all = heard.notifications();
    std::vector<Notification> fresh(all.begin() + static_cast<std::ptrdiff_t>(seen), all.end());
    seen = all.size();
    return fresh;
  }

  std::shared_ptr<FakeReachabilityChecker> fake = std::make_shared<FakeReachabilityChecker>();
  std::shared_ptr<ReachabilityCheckerGuard> guard =
      std::make_shared<ReachabilityCheckerGuard>(fake);
  FakeChrProvider provider;
  RecordingListener listener;
  RecordingListener heard;
  StateRecorder states;
  std::size_t seen = 0;
  // The constructor with a change callback alone, as before options existed.
  bool legacyConstructor = false;
  std::optional<VirtualTime> time;  // made before the cache, destroyed after it
  std::unique_ptr<ReachabilityCache> cache;
  std::unique_ptr<EntityReachabilityTracker> tracker;
};

}  // namespace test
}  // namespace veranda::reachabilityCache
