// A host's test of its use of the cache: the fakes of reachabilityCache::testing
// decide every check result and connectivity event, so nothing depends on a
// real driver or on timing beyond the cache's first cycle.
#include <chrono>
#include <memory>

#include <gtest/gtest.h>

#include "reachabilityCache/ReachabilityCache.h"
#include "reachabilityCache/testing/FakeChrProvider.h"
#include "reachabilityCache/testing/FakeReachabilityChecker.h"
#include "reachabilityCache/testing/RecordingListener.h"

namespace {

using veranda::applianceDriver::ApplianceDriverType;
using veranda::reachabilityCache::EndpointInfo;
using veranda::reachabilityCache::ReachabilityCache;
using veranda::reachabilityCache::ReachabilityCheckResult;
using namespace veranda::reachabilityCache::test;

constexpr auto kWaitLimit = std::chrono::seconds(10);

TEST(HostTest, CacheFollowsCompletedChecksAndConnectivityEvents) {
  const EndpointInfo lamp("lamp-1", "kitchen-lamp", "PROT_ZIGBEE-ADAPTER",
                          {{"PowerController", ""}});
  FakeChrProvider provider({lamp});
  auto checker = std::make_shared<FakeReachabilityChecker>();
  RecordingListener listener;
  ReachabilityCache cache(&provider, {100, std::chrono::hours(1), true, checker});
  ASSERT_TRUE(cache.registerReachabilityListener("test", listener.callback()));

  // The first cycle asks the provider and starts a check that waits for us.
  ASSERT_TRUE(checker->waitForPendingChecks(1, kWaitLimit));
  EXPECT_EQ(provider.queryCount(), 1u);
  ASSERT_TRUE(checker->completeNextCheck(
      [](const EndpointInfo& endpoint) { return makeResult(endpoint, true); }));
  ASSERT_TRUE(listener.waitForCount(1, kWaitLimit));
  EXPECT_TRUE(cache.isEntityReachable("kitchen-lamp"));

  // A connectivity event takes the lamp away; the cache's worker applies it.
  EXPECT_EQ(checker->deliverEvent(
                ReachabilityCheckResult("lamp-1", "", "", false, {}, ApplianceDriverType::UNKNOWN)),
            1u);
  ASSERT_TRUE(listener.waitForCount(2, kWaitLimit));
  EXPECT_EQ(listener.notifications().back(), (Notification{"lamp-1", "kitchen-lamp", false}));
  EXPECT_FALSE(cache.isEntityReachable("kitchen-lamp"));
}

}  // namespace
