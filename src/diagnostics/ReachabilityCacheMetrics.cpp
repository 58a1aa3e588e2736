#include "diagnostics/ReachabilityCacheMetrics.h"

#include <vector>

#include "diagnostics/LogSchema.h"
#include "metrics/Metric.h"

namespace veranda::reachabilityCache {
namespace {

constexpr uint32_t TEXT_DIMENSION = 2;
constexpr uint32_t INTEGER_DIMENSION = 4;

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
  const Metric metric(dimensions, logSchema::metric::PROGRAM_ID, logSchema::metric::SOURCE_ID,
                      true);
}

}  // namespace

const std::string ReachabilityCacheMetrics::METRIC_CACHE_FULL = logSchema::metric::CACHE_FULL;
const std::string ReachabilityCacheMetrics::METRIC_INSERT_FAILED = logSchema::metric::INSERT_FAILED;
const std::string ReachabilityCacheMetrics::METRIC_CHECK_FAILED = logSchema::metric::CHECK_FAILED;
const std::string ReachabilityCacheMetrics::METRIC_SUBSCRIBE_FAILED =
    logSchema::metric::SUBSCRIBE_FAILED;
const std::string ReachabilityCacheMetrics::DIM_METRIC_NAME =
    logSchema::metric::DIMENSION_METRIC_NAME;
const std::string ReachabilityCacheMetrics::DIM_MAX_SIZE = logSchema::metric::DIMENSION_MAX_SIZE;
const std::string ReachabilityCacheMetrics::DIM_REASON = logSchema::metric::DIMENSION_REASON;
const std::string ReachabilityCacheMetrics::DIM_UPDATE_TYPE =
    logSchema::metric::DIMENSION_UPDATE_TYPE;
const std::string ReachabilityCacheMetrics::DIM_ACTION = logSchema::metric::DIMENSION_ACTION;

std::string ReachabilityCacheMetrics::updateTypeToString(UpdateType updateType) {
  switch (updateType) {
    case UpdateType::PERIODIC:
      return logSchema::metric::UPDATE_TYPE_PERIODIC;
    case UpdateType::EVENT:
      return logSchema::metric::UPDATE_TYPE_EVENT;
    case UpdateType::MANUAL:
      return logSchema::metric::UPDATE_TYPE_MANUAL;
  }
  return logSchema::metric::UNKNOWN;
}

std::string ReachabilityCacheMetrics::subscribeActionToString(SubscribeAction action) {
  switch (action) {
    case SubscribeAction::ENABLE:
      return logSchema::metric::ACTION_ENABLE;
    case SubscribeAction::DISABLE:
      return logSchema::metric::ACTION_DISABLE;
  }
  return logSchema::metric::UNKNOWN;
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
