#include "reachabilityCache/CachedEndpoint.h"

#include <gtest/gtest.h>

#include "StoreTestSupport.h"

namespace veranda::reachabilityCache {
namespace {

TEST(CachedEndpointTest, CapabilitiesAreKeptPerDriverTypeAndJoinedOnce) {
  const EndpointInfo info =
      CachedEndpoint(EndpointInfo("ep", "ent", "PROT_WIFI-ADAPTER", {})).toExternal();
  EXPECT_EQ(info.endpointId + info.entityId + info.adapterName, "epentPROT_WIFI-ADAPTER");
  EXPECT_TRUE(info.capabilities.empty());

  CachedEndpoint endpoint = record("ep", "ent", ApplianceDriverType::NATIVE, {kPower});
  endpoint.driverCapabilities[ApplianceDriverType::UNKNOWN] = {kPower, kBrightness};
  EXPECT_TRUE(endpoint.hasCapabilityFromDriver(kPower, ApplianceDriverType::NATIVE));
  EXPECT_FALSE(endpoint.hasCapabilityFromDriver(kBrightness, ApplianceDriverType::NATIVE));
  EXPECT_FALSE(endpoint.hasCapabilityFromDriver(kPower, ApplianceDriverType::CONNECTED));
  EXPECT_FALSE(
      endpoint.hasCapabilityFromDriver({kPower.capability, "other"}, ApplianceDriverType::NATIVE));
  EXPECT_EQ(endpoint.toExternal().capabilities, (CapabilitySet{kPower, kBrightness}));
  endpoint.driverCapabilities.clear();
  EXPECT_TRUE(endpoint.getAllCapabilities().empty());
}

}  // namespace
}  // namespace veranda::reachabilityCache
