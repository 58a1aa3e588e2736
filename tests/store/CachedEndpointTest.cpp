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

  CachedEndpoint endpoint = record("ep", "ent", ApplianceDriverType::NATIVE, {kPower});
  endpoint.driverCapabilities[ApplianceDriverType::NO_DRIVER] = {kPower, kBrightness};
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
