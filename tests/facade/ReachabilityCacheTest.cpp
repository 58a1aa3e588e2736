#include "reachabilityCache/ReachabilityCache.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <stdexcept>

#include "LogRecorder.h"
#include "reachabilityCache/testing/FakeChrProvider.h"
#include "reachabilityCache/testing/FakeReachabilityChecker.h"
#include "reachabilityCache/testing/RecordingListener.h"
#include "reachabilityCache/testing/VirtualTime.h"

namespace veranda::reachabilityCache {
namespace {

using applianceDriver::ApplianceDriverType;
using test::LogLine;
using test::LogRecorder;
using ::testing::ElementsAre;

constexpr const char* ZIGBEE = "PROT_ZIGBEE-ADAPTER";
constexpr const char* WIFI = "PROT_WIFI-ADAPTER";

CachedEndpoint stored(const std::string& endpointId, const std::string& entityId,
                      const std::string& adapter) {
  return CachedEndpoint(endpointId, entityId, adapter, ApplianceDriverType::NATIVE,
                        {{"power", "main"}});
}

class ReachabilityCacheTest : public ::testing::Test {
 protected:
  void SetUp() override { LogRecorder::instance().clear(); }

  std::unique_ptr<ReachabilityCache> makeCache(bool periodic, std::size_t capacity = 10) {
    const ReachabilityCache::Config config{capacity, std::chrono::seconds(60), periodic, checker};
    return std::make_unique<ReachabilityCache>(&provider, config);
  }

  test::VirtualTime time;  // first: made before every cache, destroyed after
  std::shared_ptr<test::FakeReachabilityChecker> checker =
      std::make_shared<test::FakeReachabilityChecker>();
  test::FakeChrProvider provider;
};

TEST_F(ReachabilityCacheTest, WithoutRefreshNothingStartsAndTeardownIsLoggedInOrder) {
  auto cache = makeCache(false, 7);
  cache->updateEndpoints(
      {stored("ep1", "e1", ZIGBEE), stored("ep2", "e2", ZIGBEE), stored("ep3", "e3", ZIGBEE)});
  EXPECT_TRUE(checker->registeredCallbackIds().empty());
  cache.reset();
  EXPECT_TRUE(checker->checkRequests().empty());

  const std::vector<LogLine> lines = LogRecorder::instance().lines();
  ASSERT_GE(lines.size(), 3U);
  EXPECT_EQ(lines[0], (LogLine{4, test::FACADE_TAG,
                               "[ReachabilityCache]: event=cacheCreated maxCacheSize=7 "
                               "periodicUpdates=false"}));
  EXPECT_EQ(lines[1], (LogLine{4, test::STORE_TAG, "[CacheCore]: maxSize=7"}));
  EXPECT_EQ(lines[2], (LogLine{4, test::UPDATER_TAG, "[ReachabilityUpdater]"}));
  const LogLine destroyed{4, test::FACADE_TAG,
                          "[~ReachabilityCache]: event=cacheDestroyed cacheSize=3"};
  const auto destroyedAt = std::find(lines.begin(), lines.end(), destroyed);
  ASSERT_NE(destroyedAt, lines.end());
  ASSERT_NE(destroyedAt + 1, lines.end());
  EXPECT_EQ(*(destroyedAt + 1), (LogLine{4, test::UPDATER_TAG, "[stopPeriodicUpdates]"}));
}

TEST_F(ReachabilityCacheTest, WithRefreshTheFirstCycleComesAfterOneSecondAndEventsAreOn) {
  provider.setEndpoints({EndpointInfo("ep1", "e1", ZIGBEE, {})});
  auto cache = makeCache(true);
  EXPECT_THAT(LogRecorder::instance().texts(test::UPDATER_TAG),
              ElementsAre("[ReachabilityUpdater]",
                          "[startPeriodicUpdates]: intervalSeconds=60 initialDelayMs=1000",
                          "[enableProactiveUpdates]: action=enableProactiveUpdates "
                          "callbackId=reachability_updater_0"));
  time.advance(std::chrono::milliseconds(999));
  EXPECT_EQ(provider.queryCount(), 0U);
  time.advance(std::chrono::milliseconds(1));
  ASSERT_EQ(checker->pendingChecks(), 1U);
  EXPECT_EQ(checker->checkRequests()[0].requestId, "periodic_1");

  test::RecordingListener listener;
  ASSERT_TRUE(cache->registerReachabilityListener("l", listener.callback()));
  auto reachable = [](const EndpointInfo& e) { return test::makeResult(e, true); };
  EXPECT_TRUE(checker->completeNextCheck(reachable));
  EXPECT_TRUE(cache->isEntityReachable("e1"));
  EXPECT_EQ(listener.count(), 1U);
  time.advance(std::chrono::seconds(60));  // the next cycle's check stays pending
  cache.reset();
  EXPECT_TRUE(checker->registeredCallbackIds().empty());
  // The fake saw the cache go: completing its check would reach freed memory.
  EXPECT_THROW(checker->completeNextCheck(reachable), std::logic_error);

  cache = makeCache(true);  // a later cache on the same fake is served as before
  time.advance(std::chrono::seconds(1));
  EXPECT_TRUE(checker->completeNextCheck(reachable));
  EXPECT_EQ(checker->takeCheckRequests().size(), 3U);
  EXPECT_TRUE(checker->checkRequests().empty());
}

TEST_F(ReachabilityCacheTest, IntervalsBeyondTheClocksRangeWaitInsteadOfComingAtOnce) {
  provider.setEndpoints({EndpointInfo("ep1", "e1", ZIGBEE, {})});
  for (const std::chrono::seconds interval :
       {std::chrono::seconds(10'000'000'000), std::chrono::seconds::max()}) {
    const std::size_t queries = provider.queryCount();
    ReachabilityCache cache(&provider, {10, interval, true, checker});
    time.advance(std::chrono::minutes(1));
    EXPECT_EQ(provider.queryCount(), queries + 1) << interval.count();
  }
}

TEST_F(ReachabilityCacheTest, PreferredEndpointFollowsAdapterThenStoreOrder) {
  auto cache = makeCache(false);
  cache->updateEndpoints(
      {stored("ep1", "e1", ZIGBEE), stored("ep2", "e1", WIFI), stored("ep3", "e1", WIFI)});
  EXPECT_EQ(cache->getPreferredEndpoint("e1", WIFI).endpointId, "ep2");
  EXPECT_EQ(
      cache->getPreferredEndpoint("orbt1.veyra.endpoint.e1", "PROT_BLE_MESH-ADAPTER").endpointId,
      "ep1");
  EXPECT_EQ(cache->getPreferredEndpoint("e1", "prot_wifi-adapter").endpointId, "ep1");
  const EndpointInfo chosen = cache->getPreferredEndpoint("e1", ZIGBEE);
  EXPECT_EQ(chosen.entityId, "e1");
  EXPECT_EQ(chosen.capabilities.count({"power", "main"}), 1U);

  LogRecorder::instance().clear();
  const EndpointInfo none = cache->getPreferredEndpoint("orbt1.veyra.endpoint.nobody", WIFI);
  EXPECT_TRUE(none.endpointId.empty() && none.entityId.empty() && none.adapterName.empty() &&
              none.capabilities.empty());
  EXPECT_THAT(LogRecorder::instance().linesWithTag(test::FACADE_TAG),
              ElementsAre(LogLine{5, test::FACADE_TAG,
                                  "[getPreferredEndpoint]: action=getPreferredEndpoint "
                                  "entityId=orbt1.veyra.endpoint.nobody reason=noEndpointsFound"}));
}

TEST_F(ReachabilityCacheTest, BatchUpdatesSkipRefusedRecordsAndClearingKeepsListeners) {
  auto cache = makeCache(false, 2);
  LogRecorder::instance().clear();
  cache->updateEndpoints({});
  EXPECT_TRUE(LogRecorder::instance().lines().empty());

  cache->updateEndpoints({stored("ep1", "orbt1.veyra.endpoint.e1", ZIGBEE),
                          CachedEndpoint(EndpointInfo("ep2", "e2", WIFI, {{"dim", ""}})),
                          stored("ep3", "e3", ZIGBEE)});  // refused: full
  EXPECT_EQ(cache->size(), 2U);
  EXPECT_EQ(cache->getEntityIdForEndpoint("ep1"), "e1");
  EXPECT_FALSE(cache->isEntityReachable("e2"));  // only NO_DRIVER
  EXPECT_TRUE(cache->isCapabilityReachable("e2", {"dim", ""}));
  EXPECT_EQ(LogRecorder::instance().countContaining(test::METRIC_TAG, "CacheFull"), 1U);

  test::RecordingListener listener;
  EXPECT_TRUE(cache->registerReachabilityListener("l", listener.callback()));
  cache->invalidate();
  EXPECT_EQ(cache->size(), 0U);
  EXPECT_TRUE(cache->unregisterReachabilityListener("l"));  // clearing kept it
}

TEST_F(ReachabilityCacheTest, TheHostsCheckerOutlivesTheCacheAndCannotReachItAfterwards) {
  checker->setRefuseUnregistrations(true);  // the cache's update callback outlives it
  auto cache = makeCache(true);
  EXPECT_GE(checker.use_count(), 3);
  cache.reset();
  EXPECT_EQ(checker.use_count(), 1);
  EXPECT_THROW(checker->deliverEvent(ReachabilityCheckResult("ep1", "", "", false, {},
                                                             ApplianceDriverType::NO_DRIVER)),
               std::logic_error);
}

}  // namespace
}  // namespace veranda::reachabilityCache
