// The cache's four failure metrics.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace veranda::reachabilityCache {

// Records one metric per call through the platform's Metric; keeps no state
// and takes no lock, so it may be called from any thread, under any lock.
class ReachabilityCacheMetrics {
 public:
  enum class UpdateType : int32_t { PERIODIC = 0, EVENT = 1, MANUAL = 2 };
  enum class SubscribeAction : int32_t { ENABLE = 0, DISABLE = 1 };

  // The names and texts of logSchema::metric.
  static const std::string METRIC_CACHE_FULL;
  static const std::string METRIC_INSERT_FAILED;
  static const std::string METRIC_CHECK_FAILED;
  static const std::string METRIC_SUBSCRIBE_FAILED;
  static const std::string DIM_METRIC_NAME;
  static const std::string DIM_MAX_SIZE;
  static const std::string DIM_REASON;
  static const std::string DIM_UPDATE_TYPE;
  static const std::string DIM_ACTION;

  // The text of each value; "unknown" for any other value.
  static std::string updateTypeToString(UpdateType updateType);
  // The text of each value; "unknown" for any other value.
  static std::string subscribeActionToString(SubscribeAction action);

  // The store refused a new entity because it holds `maxSize` entities.
  static void emitCacheFull(std::size_t maxSize);
  // The store refused a record, for `reason`.
  static void emitInsertFailed(const std::string& reason);
  // A periodic or manual check could not start.
  static void emitCheckFailed(UpdateType updateType, const std::string& reason);
  // A subscription to connectivity events could not be made.
  static void emitSubscribeFailed(SubscribeAction action, const std::string& reason);

  ReachabilityCacheMetrics() = delete;
};

}  // namespace veranda::reachabilityCache
