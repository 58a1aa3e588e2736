// Shared helpers of the store tests.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "LogRecorder.h"
#include "reachabilityCache/CachedEndpoint.h"
#include "store/CacheCore.h"

namespace veranda::reachabilityCache {

using applianceDriver::ApplianceDriverType;
using test::LogLine;
using test::LogRecorder;
using Lines = std::vector<LogLine>;

inline const std::string PREFIX = "orbt1.veyra.endpoint.";
inline const CapabilityKey POWER{"PowerController", "powerState"};
inline const CapabilityKey BRIGHTNESS{"BrightnessController", "brightness"};

// A record of `endpointId` serving `entityId`, `capabilities` filed under `driverType`.
inline CachedEndpoint record(const std::string& endpointId, const std::string& entityId,
                             ApplianceDriverType driverType = ApplianceDriverType::NATIVE,
                             CapabilitySet capabilities = {},
                             const std::string& adapterName = "PROT_ZIGBEE-ADAPTER") {
  return {endpointId, entityId, adapterName, driverType, std::move(capabilities)};
}

inline LogLine debugLine(const std::string& text) { return {3, test::STORE_TAG, text}; }
inline LogLine infoLine(const std::string& text) { return {4, test::STORE_TAG, text}; }
inline LogLine warnLine(const std::string& text) { return {5, test::STORE_TAG, text}; }
inline LogLine metricLine(const std::string& dimensions) {
  return {4, test::METRIC_TAG,
          "[Metric]: " + dimensions + " program=762veg6l source=nlef/2/03330473"};
}

// Starts every test with an empty log; takeLines() empties it again.
class StoreTest : public ::testing::Test {
 protected:
  void SetUp() override { LogRecorder::instance().clear(); }

  static Lines takeLines() { return LogRecorder::instance().take(); }
};

}  // namespace veranda::reachabilityCache
