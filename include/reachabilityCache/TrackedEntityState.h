// An entity's reachability as EntityReachabilityTracker reports it: what a
// user interface shows, with why and since when.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "reachabilityCache/Export.h"

namespace veranda::reachabilityCache {

// What the tracker last reported for an entity.
enum class EntityReachability : uint8_t {
  UNKNOWN,      // not judged by the cache since the tracker started
  REACHABLE,    // isEntityReachable() answered true
  UNREACHABLE,  // isEntityReachable() answered false
};

// Why an entity's reachability took the value the tracker reports.
enum class ReachabilityCause : uint8_t {
  NONE,                 // still UNKNOWN
  TRACKING_STARTED,     // the cache held the entity when the tracker started
  CYCLE_RESULT,         // a periodic cycle's check answered for it
  MANUAL_CHECK_RESULT,  // a manual check's answer (a check the host asked for)
  CONNECTIVITY_EVENT,   // a connectivity event of one of its endpoints
  DROPPED_BY_PROVIDER,  // a cycle dropped endpoints that the provider no longer names
  HOST_CHANGE,          // updateEndpoints(), removeEntity(), invalidate() or a listener's change
  HOLD_DOWN_ELAPSED,    // it stayed unreachable for the tracker's hold-down
};

// "unknown", "reachable", "unreachable".
REACHABILITY_CACHE_EXPORT const char* toString(EntityReachability reachability);
// The enumerator in lower camel case: "none", "trackingStarted", "cycleResult",
// "manualCheckResult", "connectivityEvent", "droppedByProvider", "hostChange",
// "holdDownElapsed".
REACHABILITY_CACHE_EXPORT const char* toString(ReachabilityCause cause);

// One entity as the tracker reports it. Times come from the tracker's clock
// (see EntityReachabilityTracker::Options).
struct TrackedEntityState {
  // Wall-clock time, as a UI shows it ("since 9:14").
  using TimePoint = std::chrono::system_clock::time_point;

  std::string entityId;  // without the "orbt1.veyra.endpoint." prefix
  EntityReachability reachability = EntityReachability::UNKNOWN;  // as last reported
  ReachabilityCause cause = ReachabilityCause::NONE;              // of the latest change
  // When `reachability` took its value: the tracker's start while UNKNOWN.
  TimePoint since;
  // The last time a settle point found the entity reachable (its latest
  // confirmation); empty when it never was since the tracker started.
  std::optional<TimePoint> lastSeenReachable;
};

// Every field equal.
inline bool operator==(const TrackedEntityState& left, const TrackedEntityState& right) {
  return left.entityId == right.entityId && left.reachability == right.reachability &&
         left.cause == right.cause && left.since == right.since &&
         left.lastSeenReachable == right.lastSeenReachable;
}

// Some field differs.
inline bool operator!=(const TrackedEntityState& left, const TrackedEntityState& right) {
  return !(left == right);
}

}  // namespace veranda::reachabilityCache
