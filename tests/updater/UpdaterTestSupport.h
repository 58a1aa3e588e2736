// Shared set-up of the updater tests: a real store, a hand-driven checker and
// a provider whose list the test sets.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "LogRecorder.h"
#include "reachabilityCache/testing/FakeChrProvider.h"
#include "reachabilityCache/testing/FakeReachabilityChecker.h"
#include "reachabilityCache/testing/RecordingListener.h"
#include "store/CacheCore.h"
#include "updater/ReachabilityUpdater.h"

namespace veranda::reachabilityCache {

inline constexpr std::chrono::milliseconds kWait{5000};
inline constexpr const char* kZigbee = "PROT_ZIGBEE-ADAPTER";

inline EndpointInfo endpoint(const std::string& endpointId, const std::string& entityId,
                             const std::string& adapter = kZigbee) {
  return EndpointInfo(endpointId, entityId, adapter, {{"power", "main"}});
}

inline ReachabilityCheckResult reachable(const std::string& endpointId, const std::string& entityId,
                                         const std::string& adapter = kZigbee) {
  return testing::makeResult(endpoint(endpointId, entityId, adapter), true);
}

inline ReachabilityCheckResult unreachable(const std::string& endpointId,
                                           const std::string& entityId,
                                           const std::string& adapter = "") {
  return testing::makeResult(endpoint(endpointId, entityId, adapter), false);
}

class UpdaterTest : public ::testing::Test {
 protected:
  void SetUp() override {
    testing::LogRecorder::instance().clear();
    store->registerReachabilityListener("recorder", listener.callback());
  }

  void TearDown() override {
    // Checks still pending refer to the updater; drop them before it goes.
    checker->dropPendingChecks();
    updater.reset();
  }

  void createUpdater(ICHRProvider* chrProvider) {
    updater = std::make_unique<ReachabilityUpdater>(store, checker, chrProvider);
  }

  // The texts of the updater's lines, in order.
  static std::vector<std::string> updaterLines() {
    return testing::LogRecorder::instance().texts(testing::kUpdaterTag);
  }

  static bool waitForUpdaterLine(const std::string& fragment) {
    return testing::LogRecorder::instance().waitForLine(testing::kUpdaterTag, fragment, kWait);
  }

  // Runs a manual trigger with no endpoints and waits for it: every task
  // posted to the updater's executor before it has run by then.
  void drainExecutor() {
    const std::size_t before = testing::LogRecorder::instance().countContaining(
        testing::kUpdaterTag, "reason=noEndpoints");
    updater->triggerUpdate({});
    ASSERT_TRUE(testing::LogRecorder::instance().waitFor(
        [&](const std::vector<testing::LogLine>& lines) {
          std::size_t count = 0;
          for (const testing::LogLine& line : lines) {
            count += line.text == "[]: reason=noEndpoints" ? 1 : 0;
          }
          return count > before;
        },
        kWait));
  }

  std::shared_ptr<CacheCore> store = std::make_shared<CacheCore>(100);
  std::shared_ptr<testing::FakeReachabilityChecker> checker =
      std::make_shared<testing::FakeReachabilityChecker>();
  testing::FakeChrProvider provider;
  testing::RecordingListener listener;
  std::unique_ptr<ReachabilityUpdater> updater;
};

}  // namespace veranda::reachabilityCache
