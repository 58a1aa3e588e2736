#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "StoreTestSupport.h"
#include "store/CacheCore.h"

namespace veranda::reachabilityCache {
namespace {

using AdapterMap = std::unordered_map<std::string, std::unordered_map<std::string, std::string>>;

class CacheCoreQueriesTest : public StoreTest {};

TEST_F(CacheCoreQueriesTest, OnlyNativeOrConnectedMakeAnEntityReachable) {
  CacheCore store(4);
  store.insertEndpoint(EndpointInfo("ep1", PREFIX + "lamp", "PROT_WIFI-ADAPTER", {POWER}));
  store.insertEndpoint(record("ep2", "fan", ApplianceDriverType::CONNECTED, {}));
  takeLines();
  EXPECT_FALSE(store.isEntityPresent(PREFIX + "ghost"));
  EXPECT_FALSE(store.isEntityReachable("ghost"));
  EXPECT_FALSE(store.isCapabilityReachable("ghost", POWER));
  EXPECT_FALSE(store.isCapabilityReachableByDriver("ghost", POWER, ApplianceDriverType::CONNECTED));
  EXPECT_EQ(store.getEndpointIdForEntity("ghost"), "");
  EXPECT_EQ(store.getEntityIdForEndpoint("ep"), "");
  EXPECT_EQ(store.getAdapterName("ghost", "ep1"), "");
  EXPECT_TRUE(store.getEndpointsForEntity("ghost").empty());
  EXPECT_TRUE(store.isEntityPresent("lamp"));
  EXPECT_FALSE(store.isEntityReachable("lamp"));
  EXPECT_TRUE(store.isCapabilityReachable(PREFIX + "lamp", POWER));
  EXPECT_FALSE(store.isCapabilityReachable("lamp", {"PowerController", "other"}));
  EXPECT_TRUE(store.isCapabilityReachableByDriver("lamp", POWER, ApplianceDriverType::NO_DRIVER));
  EXPECT_FALSE(store.isCapabilityReachableByDriver("lamp", POWER, ApplianceDriverType::NATIVE));
  EXPECT_TRUE(store.isEntityReachable("fan"));  // a present driver type without capabilities
  const std::string capability = "capability=PowerController ";
  EXPECT_EQ(
      takeLines(),
      (Lines{
          debugLine("[isEntityPresent]: entityId=ghost present=false"),
          debugLine("[isEntityReachable]: entityId=ghost reachable=false reason=notInCache"),
          debugLine("[isCapabilityReachable]: entityId=ghost " + capability +
                    "reachable=false reason=entityNotFound"),
          debugLine("[isCapabilityReachableByDriver]: entityId=ghost " + capability +
                    "driverType=1 reachable=false reason=entityNotFound"),
          debugLine("[getEndpointIdForEntity]: entityId=ghost endpointId=notFound"),
          debugLine("[getEntityIdForEndpoint]: endpointId=ep entityId=notFound"),
          debugLine("[isEntityPresent]: entityId=lamp present=true"),
          debugLine(
              "[isEntityReachable]: entityId=lamp reachable=false reason=noDriverCapabilities"),
          debugLine("[isCapabilityReachable]: entityId=lamp " + capability +
                    "endpointId=ep1 reachable=true"),
          debugLine("[isCapabilityReachable]: entityId=lamp " + capability +
                    "reachable=false reason=capabilityNotFound endpointCount=1"),
          debugLine("[isCapabilityReachableByDriver]: entityId=lamp " + capability +
                    "driverType=2 endpointId=ep1 reachable=true"),
          debugLine("[isCapabilityReachableByDriver]: entityId=lamp " + capability +
                    "driverType=0 reachable=false reason=capabilityNotFoundForDriver"),
          debugLine("[isEntityReachable]: entityId=fan reachable=true"),
      }));

  // Cleared capabilities leave the endpoint stored but make it unreachable.
  store.clearEndpointCapabilities("fan", "ep2");
  EXPECT_TRUE(store.isEntityPresent("fan"));
  EXPECT_FALSE(store.isEntityReachable("fan"));
  EXPECT_EQ(store.getReachableEndpointsMap().at("fan"),
            (std::unordered_map<std::string, std::string>{{"ep2", "PROT_ZIGBEE-ADAPTER"}}));
}

TEST_F(CacheCoreQueriesTest, MappingQueriesFollowInsertionOrderAndNormalisedIds) {
  CacheCore store(4);
  store.insertEndpoint(record("ep1", PREFIX + "lamp", ApplianceDriverType::NATIVE, {POWER}));
  store.insertEndpoint(
      record("ep2", "lamp", ApplianceDriverType::NO_DRIVER, {}, "PROT_BLE-ADAPTER"));
  store.insertEndpoint(record("ep1", "lamp", ApplianceDriverType::CONNECTED, {BRIGHTNESS}));
  store.insertEndpoint(record("ep3", "fan"));

  EXPECT_EQ(store.getEndpointIdForEntity("lamp"), "ep1");
  EXPECT_EQ(store.getAdapterName(PREFIX + "lamp", "ep2"), "PROT_BLE-ADAPTER");
  EXPECT_EQ(store.getAdapterName("lamp", "ep3"), "");

  const std::vector<EndpointInfo> endpoints = store.getEndpointsForEntity(PREFIX + "lamp");
  ASSERT_EQ(endpoints.size(), 2U);
  EXPECT_EQ(endpoints[0].endpointId + " " + endpoints[0].entityId + " " + endpoints[1].endpointId,
            "ep1 lamp ep2");
  EXPECT_EQ(endpoints[0].capabilities, (CapabilitySet{POWER, BRIGHTNESS}));
  EXPECT_TRUE(endpoints[1].capabilities.empty());
  EXPECT_EQ(store.getReachableEndpointsMap(),
            (AdapterMap{{"lamp", {{"ep1", "PROT_ZIGBEE-ADAPTER"}, {"ep2", "PROT_BLE-ADAPTER"}}},
                        {"fan", {{"ep3", "PROT_ZIGBEE-ADAPTER"}}}}));

  store.removeEndpoint("lamp", "ep1");
  EXPECT_EQ(store.getEndpointIdForEntity("lamp"), "ep2");
}

// The sweep's list: the endpoints a name list lacks, in the order a copy of
// the endpoint index lists them (the order the sweep removes them in), taken
// without a line of log.
TEST_F(CacheCoreQueriesTest, EndpointsNotNamedComeInTheOrderOfACopyOfTheIndex) {
  CacheCore store(5000);
  std::vector<std::string> ids;
  for (int i = 0; i < 6000; ++i) {
    ids.push_back("ep" + std::to_string(i));
    store.insertEndpoint(record(ids.back(), "entity" + std::to_string(i % 4000)));
  }
  store.removeEntity("entity7");
  Arena arena;
  CacheCore::EndpointIdSet named{CacheCore::EndpointIdSet::allocator_type(arena)};
  for (int i = 0; i < 6000; i += 3) {
    named.insert(ids[i]);
  }
  std::vector<std::pair<std::string, std::string>> expected;
  for (const auto& entry : store.getCachedEndpointIds()) {
    if (named.count(entry.first) == 0) {
      expected.emplace_back(entry);
    }
  }
  takeLines();
  EXPECT_EQ(store.getEndpointsNotNamed(named), expected);
  EXPECT_EQ(expected.size(), 4000u - 2u);  // entity7 and its two unnamed endpoints are gone
  EXPECT_TRUE(takeLines().empty());
}

}  // namespace
}  // namespace veranda::reachabilityCache
