// A device that moves from one entity to another: the store indexes an
// endpoint under the entity it was last stored under, so how the host removes
// the old entity decides whether a record is left behind that no sweep finds.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "reachabilityCache/ReachabilityCache.h"
#include "reachabilityCache/testing/FakeChrProvider.h"
#include "reachabilityCache/testing/FakeReachabilityChecker.h"
#include "reachabilityCache/testing/VirtualTime.h"

namespace veranda::reachabilityCache {
namespace {

using applianceDriver::ApplianceDriverType;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr const char* ZIGBEE = "PROT_ZIGBEE-ADAPTER";
constexpr std::chrono::seconds INTERVAL{60};

EndpointInfo lampUnder(const std::string& entityId) {
  return EndpointInfo("lamp", entityId, ZIGBEE, {{"power", "main"}});
}

// The provider always names a second device, so that its list is never empty
// (an empty list skips the sweep).
const EndpointInfo PLUG("plug", "desk", ZIGBEE, {{"power", "main"}});

class DeviceMoveTest : public ::testing::Test {
 protected:
  void SetUp() override {
    provider.setEndpoints({lampUnder("hall"), PLUG});
    cache = std::make_unique<ReachabilityCache>(
        &provider, ReachabilityCache::Config{10, INTERVAL, true, checker});
    nextCycle();  // the lamp is stored under "hall"
  }

  // Runs the next cycle; every device it asks about answers reachable.
  void nextCycle() {
    time.advance(cycles++ == 0 ? std::chrono::seconds(1) : INTERVAL);
    ASSERT_TRUE(checker->completeNextCheck(
        [](const EndpointInfo& endpoint) { return test::makeResult(endpoint, true); }));
  }

  std::vector<std::string> endpointsOf(const std::string& entityId) const {
    std::vector<std::string> ids;
    for (const EndpointInfo& endpoint : cache->getEndpointsForEntity(entityId)) {
      ids.push_back(endpoint.endpointId);
    }
    return ids;
  }

  // The registry moves the lamp to "porch", runs one cycle, then forgets it.
  void moveThenForget(const std::function<void()>& hostAfterRegistryChange,
                      const std::function<void()>& hostAfterCycle) {
    provider.setEndpoints({lampUnder("porch"), PLUG});
    hostAfterRegistryChange();
    nextCycle();
    hostAfterCycle();
    provider.setEndpoints({PLUG});
    nextCycle();
  }

  test::VirtualTime time;
  std::shared_ptr<test::FakeReachabilityChecker> checker =
      std::make_shared<test::FakeReachabilityChecker>();
  test::FakeChrProvider provider;
  std::unique_ptr<ReachabilityCache> cache;
  int cycles = 0;
};

TEST_F(DeviceMoveTest, RemovingTheOldEntityAfterTheMoveWasStoredLeavesARecordNoSweepFinds) {
  provider.setEndpoints({lampUnder("porch"), PLUG});
  nextCycle();
  // The old entity keeps its record, which no cycle updates any more.
  EXPECT_THAT(endpointsOf("hall"), ElementsAre("lamp"));
  EXPECT_THAT(endpointsOf("porch"), ElementsAre("lamp"));
  EXPECT_EQ(cache->getEntityIdForEndpoint("lamp"), "porch");

  // Removing it un-indexes the record under "porch" too.
  ASSERT_TRUE(cache->removeEntity("hall"));
  EXPECT_EQ(cache->getEntityIdForEndpoint("lamp"), "");
  // An event for the lamp no longer finds its entity: "porch" stays reachable.
  checker->deliverEvent(
      ReachabilityCheckResult("lamp", "", "", false, {}, ApplianceDriverType::NO_DRIVER));
  time.runUntilIdle();
  EXPECT_TRUE(cache->isEntityReachable("porch"));
  // Once the provider stops naming the lamp, no sweep removes it.
  provider.setEndpoints({PLUG});
  nextCycle();
  EXPECT_THAT(endpointsOf("porch"), ElementsAre("lamp"));
  EXPECT_TRUE(cache->isEntityReachable("porch"));
}

TEST_F(DeviceMoveTest, RemovingTheOldEntityBeforeTheMoveIsStoredLeavesNothingBehind) {
  moveThenForget([this] { EXPECT_TRUE(cache->removeEntity("hall")); },
                 [this] {
                   EXPECT_THAT(endpointsOf("porch"), ElementsAre("lamp"));
                   EXPECT_EQ(cache->getEntityIdForEndpoint("lamp"), "porch");
                 });
  EXPECT_THAT(endpointsOf("hall"), IsEmpty());
  EXPECT_THAT(endpointsOf("porch"), IsEmpty());
  EXPECT_EQ(cache->size(), 1U);
}

TEST_F(DeviceMoveTest, RemovingBothEntitiesOnceTheMoveMayBeStoredLeavesNothingBehind) {
  moveThenForget([] {},
                 [this] {
                   // A cycle stored the move before the host could react.
                   EXPECT_TRUE(cache->removeEntity("hall"));
                   EXPECT_TRUE(cache->removeEntity("porch"));
                 });
  EXPECT_THAT(endpointsOf("hall"), IsEmpty());
  EXPECT_THAT(endpointsOf("porch"), IsEmpty());
  EXPECT_EQ(cache->size(), 1U);

  // The next cycle that names the lamp stores it afresh, under "porch" alone.
  provider.setEndpoints({lampUnder("porch"), PLUG});
  nextCycle();
  EXPECT_THAT(endpointsOf("porch"), ElementsAre("lamp"));
  EXPECT_EQ(cache->getEntityIdForEndpoint("lamp"), "porch");
  EXPECT_EQ(cache->size(), 2U);
}

TEST_F(DeviceMoveTest, NamingTheEndpointNowhereUntilASweepDropsItMovesItCleanly) {
  provider.setEndpoints({PLUG});
  nextCycle();
  EXPECT_THAT(endpointsOf("hall"), IsEmpty());  // swept
  moveThenForget([] {}, [this] { EXPECT_THAT(endpointsOf("porch"), ElementsAre("lamp")); });
  EXPECT_THAT(endpointsOf("porch"), IsEmpty());
  EXPECT_EQ(cache->size(), 1U);
}

}  // namespace
}  // namespace veranda::reachabilityCache
