#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <unordered_map>
#include <utility>
#include <vector>

#include "StoreTestSupport.h"
#include "store/CacheCore.h"

namespace veranda::reachabilityCache {
namespace {

using Index = std::unordered_map<std::string, std::string>;

class CacheCoreInsertRemoveTest : public StoreTest {};

TEST_F(CacheCoreInsertRemoveTest, MergesReplaceOnlyTheDriverTypesTheyBring) {
  CacheCore store(1);
  EXPECT_TRUE(
      store.insertEndpoint(record("ep1", PREFIX + "lamp", ApplianceDriverType::NATIVE, {POWER})));
  EXPECT_TRUE(store.insertEndpoint(record("ep2", PREFIX + "lamp", ApplianceDriverType::NO_DRIVER)));
  EXPECT_TRUE(store.insertEndpoint(
      record("ep1", "lamp", ApplianceDriverType::CONNECTED, {BRIGHTNESS}, "")));
  EXPECT_EQ(takeLines(),
            (Lines{infoLine("[CacheCore]: maxSize=1"),
                   infoLine("[insertEndpoint]: action=newEntity entityId=lamp endpointId=ep1"),
                   debugLine("[insertEndpoint]: action=appended entityId=lamp endpointId=ep2"),
                   debugLine("[insertEndpoint]: action=merged entityId=lamp endpointId=ep1 "
                             "driverCount=2")}));
  EXPECT_EQ(store.getCachedEndpointIds(), (Index{{"ep1", "lamp"}, {"ep2", "lamp"}}));
  EXPECT_EQ(store.getAdapterName("lamp", "ep1"), "PROT_ZIGBEE-ADAPTER");  // empty name kept out
  EXPECT_TRUE(store.isCapabilityReachableByDriver("lamp", POWER, ApplianceDriverType::NATIVE));

  // An empty set replaces the stored one but leaves the driver type present.
  store.insertEndpoint(record("ep1", "lamp", ApplianceDriverType::NATIVE, {}, "PROT_WIFI-ADAPTER"));
  store.insertEndpoint(record("ep1", "lamp", ApplianceDriverType::CONNECTED, {}, ""));
  EXPECT_EQ(store.getAdapterName("lamp", "ep1"), "PROT_WIFI-ADAPTER");
  EXPECT_FALSE(store.isCapabilityReachable("lamp", POWER));
  EXPECT_FALSE(store.isCapabilityReachable("lamp", BRIGHTNESS));
  EXPECT_TRUE(store.isEntityReachable("lamp"));
  EXPECT_EQ(LogRecorder::instance().countContaining(test::STORE_TAG, "driverCount=2"), 2U);
}

TEST_F(CacheCoreInsertRemoveTest, RefusalsAnswerFalseWithOneLineAndOneMetricAndChangeNothing) {
  CacheCore store(1);
  store.insertEndpoint(record("ep1", "lamp"));
  takeLines();
  const std::string insertFailed = "metricName=ReachabilityCache.InsertFailed reason=";
  EXPECT_FALSE(store.insertEndpoint(record("ep3", PREFIX + "fan")));
  EXPECT_FALSE(store.insertEndpoint(record("", "")));
  EXPECT_FALSE(store.insertEndpoint(record("", PREFIX + "lamp")));
  EXPECT_EQ(
      takeLines(),
      (Lines{
          warnLine("[insertEndpoint]: reason=cacheFull entityId=fan endpointId=ep3"),
          metricLine("metricName=ReachabilityCache.CacheFull maxSize=1"),
          warnLine("[insertEndpoint]: reason=emptyEntityId endpointId="),
          metricLine(insertFailed + "emptyEntityId"),
          warnLine("[insertEndpoint]: reason=emptyEndpointId entityId=orbt1.veyra.endpoint.lamp"),
          metricLine(insertFailed + "emptyEndpointId")}));
  EXPECT_TRUE(store.isFull());
  EXPECT_EQ(store.getCachedEndpointIds(), (Index{{"ep1", "lamp"}}));
  EXPECT_EQ(store.getEndpointsForEntity("lamp").size(), 1U);

  CacheCore none(0);
  EXPECT_TRUE(none.isFull());
  EXPECT_FALSE(none.insertEndpoint(EndpointInfo("ep1", "lamp", "", {})));
  EXPECT_EQ(none.size(), 0U);
}

TEST_F(CacheCoreInsertRemoveTest, OneLeadingPrefixIsStrippedAndTheEndpointIndexNamesTheLastWriter) {
  CacheCore store(8);
  const std::vector<std::pair<std::string, std::string>> stored = {
      {PREFIX + PREFIX + "x", PREFIX + "x"},
      {"x" + PREFIX + "y", "x" + PREFIX + "y"},
      {"ORBT1.VEYRA.ENDPOINT.z", "ORBT1.VEYRA.ENDPOINT.z"},
      {"short", "short"},
      {PREFIX, ""},
      {PREFIX + "lamp", "lamp"}};
  for (std::size_t i = 0; i < stored.size(); ++i) {
    const std::string endpointId = "ep" + std::to_string(i);
    EXPECT_TRUE(store.insertEndpoint(record(endpointId, stored[i].first)));
    EXPECT_EQ(store.getEntityIdForEndpoint(endpointId), stored[i].second) << stored[i].first;
  }
  EXPECT_TRUE(store.isEntityPresent(""));
  EXPECT_EQ(store.getEndpointIdForEntity(PREFIX + "lamp"), "ep5");
  EXPECT_TRUE(store.removeEndpoint(PREFIX + "short", "ep3"));
  EXPECT_TRUE(store.removeEntity(PREFIX + PREFIX + "x"));
  EXPECT_EQ(store.size(), 4U);

  store.insertEndpoint(record("ep5", "tv"));
  EXPECT_EQ(store.getEntityIdForEndpoint("ep5"), "tv");
  EXPECT_EQ(store.getEndpointIdForEntity("lamp"), "ep5");
  // Removing it from lamp drops the index entry although tv still holds it.
  EXPECT_TRUE(store.removeEndpoint("lamp", "ep5"));
  EXPECT_EQ(store.getEntityIdForEndpoint("ep5"), "");
  EXPECT_EQ(store.getEndpointIdForEntity("tv"), "ep5");
}

TEST_F(CacheCoreInsertRemoveTest, RemovalsAndClearLogWhatTheyFound) {
  CacheCore store(4);
  const Index endpoints = {{"ep1", "lamp"}, {"ep2", "lamp"}, {"ep3", "fan"},
                           {"ep4", "fan"},  {"ep5", "tv"},   {"ep6", "tv"}};
  for (const auto& [endpointId, entityId] : endpoints) {
    store.insertEndpoint(record(endpointId, entityId));
  }
  takeLines();
  EXPECT_FALSE(store.removeEndpoint("ghost", "ep1"));
  EXPECT_FALSE(store.removeEndpoint(PREFIX + "lamp", "ep3"));
  EXPECT_TRUE(store.removeEndpoint("lamp", "ep1"));
  EXPECT_TRUE(store.removeEndpoint("lamp", "ep2"));
  EXPECT_FALSE(store.removeEntity("lamp"));
  EXPECT_FALSE(store.clearEndpointCapabilities("lamp", "ep1"));
  EXPECT_FALSE(store.clearEndpointCapabilities("fan", "ep1"));
  EXPECT_TRUE(store.clearEndpointCapabilities(PREFIX + "fan", "ep3"));
  EXPECT_TRUE(store.removeEntity(PREFIX + "fan"));
  EXPECT_EQ(store.getCachedEndpointIds(), (Index{{"ep5", "tv"}, {"ep6", "tv"}}));
  store.clear();
  const std::string clearCapabilities = "[clearEndpointCapabilities]: action=";
  EXPECT_EQ(
      takeLines(),
      (Lines{debugLine("[removeEndpoint]: action=notFound entityId=ghost endpointId=ep1"),
             debugLine("[removeEndpoint]: action=endpointNotFound entityId=lamp endpointId=ep3"),
             debugLine("[removeEndpoint]: action=removedEndpoint entityId=lamp endpointId=ep1"),
             infoLine("[removeEndpoint]: action=removedEndpointAndEntity entityId=lamp "
                      "endpointId=ep2"),
             debugLine("[removeEntity]: event=notFound entityId=lamp"),
             debugLine(clearCapabilities + "notFound entityId=lamp endpointId=ep1"),
             debugLine(clearCapabilities + "endpointNotFound entityId=fan endpointId=ep1"),
             debugLine(clearCapabilities + "clearedCapabilities entityId=fan endpointId=ep3"),
             infoLine("[removeEntity]: action=removedEntity entityId=fan endpointCount=2"),
             infoLine("[clear]: action=cleared previousSize=1")}));
  EXPECT_TRUE(store.getReachableEndpointsMap().empty());
}

// A record lent field by field is stored, merged and refused exactly as the
// same record built and inserted whole: the same lines, metrics and state.
TEST_F(CacheCoreInsertRemoveTest, ABorrowedRecordIsTreatedAsTheSameRecordBuiltWhole) {
  const CachedEndpoint sequence[] = {
      record("ep1", PREFIX + "lamp", ApplianceDriverType::NATIVE, {POWER}),
      record("ep2", "lamp", ApplianceDriverType::CONNECTED, {BRIGHTNESS}, ""),
      record("ep1", "lamp", ApplianceDriverType::CONNECTED, {BRIGHTNESS}, "PROT_WIFI-ADAPTER"),
      record("ep1", PREFIX + "lamp", ApplianceDriverType::NATIVE, {}, ""),
      record("ep3", "fan", ApplianceDriverType::NATIVE, {POWER, BRIGHTNESS}),
      record("ep4", "heater", ApplianceDriverType::NATIVE, {POWER}),  // the store is full
      record("", "lamp", ApplianceDriverType::NATIVE, {POWER}),
      record("ep5", "", ApplianceDriverType::NATIVE, {POWER}),
  };
  const auto play = [&](bool borrowed) {
    CacheCore store(2);
    takeLines();
    std::vector<bool> answers;
    for (const CachedEndpoint& each : sequence) {
      const auto& [type, capabilities] = *each.driverCapabilities.begin();
      answers.push_back(borrowed ? store.insertEndpoint(each.endpointId, each.entityId,
                                                        each.adapterName, type, capabilities)
                                 : store.insertEndpoint(CachedEndpoint(each)));
    }
    // Each stored endpoint with its capabilities in the set's own order.
    std::vector<std::vector<std::string>> stored;
    for (const char* entity : {"lamp", "fan"}) {
      for (const EndpointInfo& endpoint : store.getEndpointsForEntity(entity)) {
        std::vector<std::string> fields{endpoint.endpointId, endpoint.entityId,
                                        endpoint.adapterName};
        for (const CapabilityKey& key : endpoint.capabilities) {
          fields.push_back(key.capability + "/" + key.qualifier);
        }
        stored.push_back(fields);
      }
    }
    const bool reachable = store.isEntityReachable("lamp") && store.isEntityReachable("fan");
    return std::make_tuple(
        answers, takeLines(), stored, reachable,
        store.isCapabilityReachableByDriver("lamp", BRIGHTNESS, ApplianceDriverType::CONNECTED));
  };
  const auto whole = play(false);
  EXPECT_EQ(play(true), whole);
  EXPECT_EQ(std::get<0>(whole),
            (std::vector<bool>{true, true, true, true, true, false, false, false}));
}

}  // namespace
}  // namespace veranda::reachabilityCache
