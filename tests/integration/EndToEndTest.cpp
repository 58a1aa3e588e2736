// The assembled cache over the real checker and a simulated home: devices go
// offline and online through periodic cycles and connectivity events, and the
// cache's listeners follow them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "LogRecorder.h"
#include "applianceDriver/SimulatedApplianceDriver.h"
#include "reachabilityCache/ApplianceDriverReachabilityChecker.h"
#include "reachabilityCache/ReachabilityCache.h"
#include "reachabilityCache/testing/FakeChrProvider.h"
#include "reachabilityCache/testing/RecordingListener.h"
#include "reachabilityCache/testing/VirtualTime.h"

namespace veranda::reachabilityCache {
namespace {

using applianceDriver::ApplianceDriverType;
using applianceDriver::DiscoveredDevice;
using applianceDriver::SimulatedApplianceDriver;
using test::LogRecorder;
using test::Notification;
using ::testing::UnorderedElementsAre;

constexpr const char* ZIGBEE = "PROT_ZIGBEE-ADAPTER";
const CapabilityKey POWER{"PowerController", "main"};

DiscoveredDevice device(const std::string& endpointId, const std::string& entityId,
                        bool reachable) {
  DiscoveredDevice device{
      endpointId, entityId, ZIGBEE, "", reachable, {}, ApplianceDriverType::NATIVE};
  device.capabilities.insert({POWER.capability, POWER.qualifier});
  return device;
}

class EndToEndTest : public ::testing::Test {
 protected:
  void SetUp() override {
    LogRecorder::instance().clear();
    driver.upsertDevice(device("ep1", "e1", true));
    driver.upsertDevice(device("ep2", "e2", true));
    provider.setEndpoints(
        {EndpointInfo("ep1", "e1", ZIGBEE, {}), EndpointInfo("ep2", "e2", ZIGBEE, {})});
    driver.setAnswerLatency(std::chrono::milliseconds(40));
    const ReachabilityCache::Config config{10, std::chrono::seconds(1), true, checker};
    cache = std::make_unique<ReachabilityCache>(&provider, config);
    ASSERT_TRUE(cache->registerReachabilityListener("recorder", listener.callback()));
  }

  void TearDown() override {
    driver.shutdown();  // no answer may reach the cache once it is gone
    cache.reset();
  }

  // Replaces the device without a connectivity event: only a cycle sees it.
  void replaceQuietly(const DiscoveredDevice& replacement) {
    driver.removeDevice(replacement.endpointId);
    driver.upsertDevice(replacement);
  }

  test::VirtualTime time;  // first: made before the cache and the driver, destroyed after
  SimulatedApplianceDriver driver;
  std::shared_ptr<ApplianceDriverReachabilityChecker> checker =
      std::make_shared<ApplianceDriverReachabilityChecker>(driver);
  test::FakeChrProvider provider;
  test::RecordingListener listener;
  std::unique_ptr<ReachabilityCache> cache;
};

TEST_F(EndToEndTest, ListenersFollowDevicesThroughCyclesAndConnectivityEvents) {
  // The first cycle, one second after construction, finds both devices once
  // the driver answers.
  time.advance(std::chrono::milliseconds(1039));
  EXPECT_EQ(listener.count(), 0U);
  time.advance(std::chrono::milliseconds(1));
  EXPECT_THAT(listener.notifications(), UnorderedElementsAre(Notification{"ep1", "e1", true},
                                                             Notification{"ep2", "e2", true}));
  EXPECT_TRUE(cache->isEntityReachable("e1"));
  EXPECT_TRUE(cache->isCapabilityReachableByDriver("orbt1.veyra.endpoint.e2", POWER,
                                                   ApplianceDriverType::NATIVE));

  // A connectivity event takes ep1 offline between cycles.
  ASSERT_TRUE(driver.setReachable("ep1", false));
  time.runUntilIdle();
  ASSERT_EQ(listener.count(), 3U);
  EXPECT_EQ(listener.notifications()[2], (Notification{"ep1", "e1", false}));
  EXPECT_FALSE(cache->isEntityReachable("e1"));
  EXPECT_TRUE(cache->isEntityReachable("e2"));

  // Without events only a cycle sees ep1 come back and ep2 go offline.
  replaceQuietly(device("ep1", "e1", true));
  replaceQuietly(device("ep2", "e2", false));
  time.advance(std::chrono::seconds(1));
  const std::vector<Notification> heard = listener.notifications();
  ASSERT_EQ(heard.size(), 5U);
  EXPECT_THAT(
      std::vector<Notification>(heard.begin() + 3, heard.end()),
      UnorderedElementsAre(Notification{"ep1", "e1", true}, Notification{"ep2", "e2", false}));
  EXPECT_TRUE(cache->isEntityReachable("e1"));
  EXPECT_FALSE(cache->isEntityReachable("e2"));
  EXPECT_EQ(cache->getEndpointIdForEntity("e2"), "ep2");  // unreachable, still cached

  // Three further cycles with nothing changed tell nobody anything.
  LogRecorder::instance().clear();
  time.advance(std::chrono::seconds(3));
  EXPECT_EQ(LogRecorder::instance().countContaining(test::UPDATER_TAG,
                                                    "[processReachabilityResults]: reachable=1"),
            3U);
  EXPECT_EQ(listener.count(), 5U);

  // A connectivity event brings ep2 back between cycles.
  ASSERT_TRUE(driver.setReachable("ep2", true));
  time.runUntilIdle();
  ASSERT_EQ(listener.count(), 6U);
  EXPECT_EQ(listener.notifications()[5], (Notification{"ep2", "e2", true}));
  EXPECT_EQ(time.elapsed(), std::chrono::milliseconds(5040));
}

}  // namespace
}  // namespace veranda::reachabilityCache
