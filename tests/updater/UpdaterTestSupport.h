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
#include "reachabilityCache/testing/VirtualTime.h"
#include "store/CacheCore.h"
#include "updater/ReachabilityUpdater.h"

namespace veranda::reachabilityCache {

inline constexpr const char* ZIGBEE = "PROT_ZIGBEE-ADAPTER";

inline EndpointInfo endpoint(const std::string& endpointId, const std::string& entityId,
                             const std::string& adapter = ZIGBEE) {
  return EndpointInfo(endpointId, entityId, adapter, {{"power", "main"}});
}

inline test::LogLine updaterLine(int priority, const std::string& text) {
  return {priority, test::UPDATER_TAG, text};
}

inline ReachabilityCheckResult reachable(const std::string& endpointId, const std::string& entityId,
                                         const std::string& adapter = ZIGBEE) {
  return test::makeResult(endpoint(endpointId, entityId, adapter), true);
}

inline ReachabilityCheckResult unreachable(const std::string& endpointId,
                                           const std::string& entityId,
                                           const std::string& adapter = "") {
  return test::makeResult(endpoint(endpointId, entityId, adapter), false);
}

class UpdaterTest : public ::testing::Test {
 protected:
  void SetUp() override {
    test::LogRecorder::instance().clear();
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

  test::VirtualTime time;  // first: made before the updater, destroyed after it
  std::shared_ptr<CacheCore> store = std::make_shared<CacheCore>(100);
  std::shared_ptr<test::FakeReachabilityChecker> checker =
      std::make_shared<test::FakeReachabilityChecker>();
  test::FakeChrProvider provider;
  test::RecordingListener listener;
  std::unique_ptr<ReachabilityUpdater> updater;
};

}  // namespace veranda::reachabilityCache
