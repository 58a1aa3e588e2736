#include "diagnostics/ReachabilityCacheMetrics.h"

#include <vector>

#include "metrics/Metric.h"

namespace veranda::reachabilityCache {
namespace {

constexpr uint32_t TEXT_DIMENSION = 2;
constexpr uint32_t INTEGER_DIMENSION = 4;
constexpr const char* PROGRAM_ID = "762veg6l";
constexpr const char* SOURCE_ID = "nlef/2/03330473";

Dimension textDimension(const std::string& name, const std::string& value) {
  Dimension dimension;
  dimension.name = name;
  dimension.type = TEXT_DIMENSION;
  dimension.stringValue = value;
  return dimension;
}

Dimension integerDimension(const std::string& name, int64_t value) {
  Dimension dimension;
  dimension.name = name;
  dimension.type = INTEGER_DIMENSION;
  dimension.longValue = value;
  return dimension;
}

void record(const std::vector<Dimension>& dimensions) {
  const Metric metric(dimensions, PROGRAM_ID, SOURCE_ID, true);
}

}  // namespace

const std::string ReachabilityCacheMetrics::METRIC_CACHE_FULL = "ReachabilityCache.CacheFull";
const std::string ReachabilityCacheMetrics::METRIC_INSERT_FAILED = "ReachabilityCache.InsertFailed";
const std::string ReachabilityCacheMetrics::METRIC_CHECK_FAILED = "ReachabilityCache.CheckFailed";
const std::string ReachabilityCacheMetrics::METRIC_SUBSCRIBE_FAILED =
    "ReachabilityCache.SubscribeFailed";
const std::string ReachabilityCacheMetrics::DIM_METRIC_NAME = "metricName";
const std::string ReachabilityCacheMetrics::DIM_MAX_SIZE = "maxSize";
const std::string ReachabilityCacheMetrics::DIM_REASON = "reason";
const std::string ReachabilityCacheMetrics::DIM_UPDATE_TYPE = "updateType";
const std::string ReachabilityCacheMetrics::DIM_ACTION = "action";

std::string ReachabilityCacheMetrics::updateTypeToString(UpdateType updateType) {
  switch (updateType) {
    case UpdateType::PERIODIC:
      return "periodic";
    case UpdateType::EVENT:
      return "event";
    case UpdateType::MANUAL:
      return "manual";
  }
  return "unknown";
}

std::string ReachabilityCacheMetrics::subscribeActionToString(SubscribeAction action) {
  switch (action) {
    case SubscribeAction::ENABLE:
      return "enable";
    case SubscribeAction::DISABLE:
      return "disable";
  }
  return "unknown";
}

void ReachabilityCacheMetrics::emitCacheFull(std::size_t maxSize) {
  record({textDimension(DIM_METRIC_NAME, METRIC_CACHE_FULL),
          integerDimension(DIM_MAX_SIZE, static_cast<int64_t>(maxSize))});
}

void ReachabilityCacheMetrics::emitInsertFailed(const std::string& reason) {
  record({textDimension(DIM_METRIC_NAME, METRIC_INSERT_FAILED), textDimension(DIM_REASON, reason)});
}

void ReachabilityCacheMetrics::emitCheckFailed(UpdateType updateType, const std::string& reason) {
  record({textDimension(DIM_METRIC_NAME, METRIC_CHECK_FAILED),
          textDimension(DIM_UPDATE_TYPE, updateTypeToString(updateType)),
          textDimension(DIM_REASON, reason)});
}

void ReachabilityCacheMetrics::emitSubscribeFailed(SubscribeAction action,
                                                   const std::string& reason) {
  record({textDimension(DIM_METRIC_NAME, METRIC_SUBSCRIBE_FAILED),
          textDimension(DIM_ACTION, subscribeActionToString(action)),
          textDimension(DIM_REASON, reason)});
}

}  // namespace veranda::reachabilityCache
