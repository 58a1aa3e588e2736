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

namespace veranda::reachabilityCache {
namespace {

using applianceDriver::ApplianceDriverType;
using applianceDriver::DiscoveredDevice;
using applianceDriver::SimulatedApplianceDriver;
using test::LogRecorder;
using test::Notification;
using ::testing::UnorderedElementsAre;

constexpr std::chrono::milliseconds kWait{5000};
constexpr const char* kZigbee = "PROT_ZIGBEE-ADAPTER";
const CapabilityKey kPower{"PowerController", "main"};

DiscoveredDevice device(const std::string& endpointId, const std::string& entityId,
                        bool reachable) {
  DiscoveredDevice device{
      endpointId, entityId, kZigbee, "", reachable, {}, ApplianceDriverType::NATIVE};
  device.capabilities.insert({kPower.capability, kPower.qualifier});
  return device;
}

class EndToEndTest : public ::testing::Test {
 protected:
  void SetUp() override {
    LogRecorder::instance().clear();
    driver.upsertDevice(device("ep1", "e1", true));
    driver.upsertDevice(device("ep2", "e2", true));
    provider.setEndpoints(
        {EndpointInfo("ep1", "e1", kZigbee, {}), EndpointInfo("ep2", "e2", kZigbee, {})});
    const ReachabilityCache::Config config{10, std::chrono::seconds(1), true, checker};
    cache = std::make_unique<ReachabilityCache>(&provider, config);
    // The first cycle comes one second after construction: nothing is missed.
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

  SimulatedApplianceDriver driver;
  std::shared_ptr<ApplianceDriverReachabilityChecker> checker =
      std::make_shared<ApplianceDriverReachabilityChecker>(driver);
  test::FakeChrProvider provider;
  test::RecordingListener listener;
  std::unique_ptr<ReachabilityCache> cache;
};

TEST_F(EndToEndTest, ListenersFollowDevicesThroughCyclesAndConnectivityEvents) {
  // The first cycle finds both devices.
  ASSERT_TRUE(listener.waitForCount(2, kWait));
  EXPECT_THAT(listener.notifications(), UnorderedElementsAre(Notification{"ep1", "e1", true},
                                                             Notification{"ep2", "e2", true}));
  EXPECT_TRUE(cache->isEntityReachable("e1"));
  EXPECT_TRUE(cache->isCapabilityReachableByDriver("orbt1.veyra.endpoint.e2", kPower,
                                                   ApplianceDriverType::NATIVE));

  // A connectivity event takes ep1 offline between cycles.
  ASSERT_TRUE(driver.setReachable("ep1", false));
  ASSERT_TRUE(listener.waitForCount(3, kWait));
  EXPECT_EQ(listener.notifications()[2], (Notification{"ep1", "e1", false}));
  EXPECT_FALSE(cache->isEntityReachable("e1"));
  EXPECT_TRUE(cache->isEntityReachable("e2"));

  // Without events only a cycle sees ep1 come back and ep2 go offline; the
  // cycles in between do not repeat ep1's offline change.
  replaceQuietly(device("ep1", "e1", true));
  replaceQuietly(device("ep2", "e2", false));
  ASSERT_TRUE(listener.waitForCount(5, kWait));
  const std::vector<Notification> heard = listener.notifications();
  EXPECT_THAT(
      std::vector<Notification>(heard.begin() + 3, heard.end()),
      UnorderedElementsAre(Notification{"ep1", "e1", true}, Notification{"ep2", "e2", false}));
  EXPECT_TRUE(cache->isEntityReachable("e1"));
  EXPECT_FALSE(cache->isEntityReachable("e2"));
  EXPECT_EQ(cache->getEndpointIdForEntity("e2"), "ep2");  // unreachable, still cached

  // A further cycle with nothing changed tells nobody anything.
  ASSERT_TRUE(driver.waitUntilIdle(kWait));
  LogRecorder::instance().clear();
  ASSERT_TRUE(LogRecorder::instance().waitForLine(test::kUpdaterTag, "[processReachabilityResults]",
                                                  kWait));
  EXPECT_EQ(listener.count(), 5U);

  // A connectivity event brings ep2 back between cycles.
  ASSERT_TRUE(driver.setReachable("ep2", true));
  ASSERT_TRUE(listener.waitForCount(6, kWait));
  EXPECT_EQ(listener.notifications()[5], (Notification{"ep2", "e2", true}));
}

}  // namespace
}  // namespace veranda::reachabilityCache
