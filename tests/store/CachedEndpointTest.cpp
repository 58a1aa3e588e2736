#include "reachabilityCache/CachedEndpoint.h"

#include <gtest/gtest.h>

#include <type_traits>

#include "StoreTestSupport.h"

namespace veranda::reachabilityCache {
namespace {

// A record pushed in as an EndpointInfo never makes its entity reachable: a
// host must ask for one on purpose.
static_assert(!std::is_convertible_v<EndpointInfo, CachedEndpoint>);
static_assert(std::is_constructible_v<CachedEndpoint, EndpointInfo>);

TEST(CachedEndpointTest, CapabilitiesAreKeptPerDriverTypeAndJoinedOnce) {
  const EndpointInfo info =
      CachedEndpoint(EndpointInfo("ep", "ent", "PROT_WIFI-ADAPTER", {})).toExternal();
  EXPECT_EQ(info.endpointId + info.entityId + info.adapterName, "epentPROT_WIFI-ADAPTER");
  EXPECT_TRUE(info.capabilities.empty());

  CachedEndpoint endpoint = record("ep", "ent", ApplianceDriverType::NATIVE, {POWER});
  endpoint.driverCapabilities[ApplianceDriverType::NO_DRIVER] = {POWER, BRIGHTNESS};
  EXPECT_TRUE(endpoint.hasCapabilityFromDriver(POWER, ApplianceDriverType::NATIVE));
  EXPECT_FALSE(endpoint.hasCapabilityFromDriver(BRIGHTNESS, ApplianceDriverType::NATIVE));
  EXPECT_FALSE(endpoint.hasCapabilityFromDriver(POWER, ApplianceDriverType::CONNECTED));
  EXPECT_FALSE(
      endpoint.hasCapabilityFromDriver({POWER.capability, "other"}, ApplianceDriverType::NATIVE));
  EXPECT_EQ(endpoint.toExternal().capabilities, (CapabilitySet{POWER, BRIGHTNESS}));
  endpoint.driverCapabilities.clear();
  EXPECT_TRUE(endpoint.getAllCapabilities().empty());
}

}  // namespace
}  // namespace veranda::reachabilityCache
