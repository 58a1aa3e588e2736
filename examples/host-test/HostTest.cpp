// A host's test of its use of the cache, on virtual time: the fakes of
// reachabilityCache::testing decide every check result, and VirtualTime
// decides when the cache's cycles come, so an hour of cycles takes no wall
// time and nothing depends on timing. LogCapture keeps the cache's log lines
// for the test to read instead of printing them.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>

#include "reachabilityCache/ReachabilityCache.h"
#include "reachabilityCache/testing/FakeChrProvider.h"
#include "reachabilityCache/testing/FakeReachabilityChecker.h"
#include "reachabilityCache/testing/LogCapture.h"
#include "reachabilityCache/testing/RecordingListener.h"
#include "reachabilityCache/testing/VirtualTime.h"

namespace {

using std::chrono::milliseconds;
using veranda::reachabilityCache::EndpointInfo;
using veranda::reachabilityCache::ReachabilityCache;
using namespace veranda::reachabilityCache::test;

TEST(HostTest, AnHourOfCyclesOnVirtualTime) {
  LogCapture log;    // before the cache: every line it writes is kept here
  VirtualTime time;  // before the cache: its worker runs on virtual time
  const auto start = time.now();
  const EndpointInfo lamp("lamp-1", "kitchen-lamp", "PROT_ZIGBEE-ADAPTER",
                          {{"PowerController", ""}});
  FakeChrProvider provider({lamp});
  auto checker = std::make_shared<FakeReachabilityChecker>();
  RecordingListener listener;
  ReachabilityCache cache(&provider, {100, std::chrono::seconds(60), true, checker});
  ASSERT_TRUE(cache.registerReachabilityListener("test", listener.callback()));

  // The first cycle comes one second after construction.
  time.advance(milliseconds(999));
  EXPECT_EQ(checker->pendingChecks(), 0u);
  time.advance(milliseconds(1));
  ASSERT_EQ(checker->pendingChecks(), 1u);
  // Completing a check runs the cache's result handling here, at once.
  ASSERT_TRUE(checker->completeNextCheck(
      [](const EndpointInfo& endpoint) { return makeResult(endpoint, true); }));
  EXPECT_TRUE(cache.isEntityReachable("kitchen-lamp"));

  // Then one cycle a minute; the lamp drops out every other one.
  for (int minute = 1; minute <= 60; ++minute) {
    time.advance(std::chrono::minutes(1));
    ASSERT_EQ(checker->pendingChecks(), 1u) << "minute " << minute;
    const bool up = minute % 2 == 0;
    ASSERT_TRUE(checker->completeNextCheck(
        [up](const EndpointInfo& endpoint) { return makeResult(endpoint, up); }));
    EXPECT_EQ(cache.isEntityReachable("kitchen-lamp"), up) << "minute " << minute;
  }

  EXPECT_EQ(checker->checkRequests().size(), 61u);
  EXPECT_EQ(provider.queryCount(), 61u);
  EXPECT_EQ(listener.count(), 61u);  // every change: 1 + 60
  EXPECT_EQ(listener.notifications().back(), (Notification{"lamp-1", "kitchen-lamp", true}));
  EXPECT_EQ(time.now() - start, std::chrono::seconds(3601));
  EXPECT_EQ(time.pendingTasks(), 1u);  // the next cycle
  // One result summary per change back to reachable: the first and 30 more.
  EXPECT_EQ(log.countContaining("ReachabilityCache-ReachabilityUpdater", "(becameReachable)"), 31u);
}

}  // namespace
