#include "reachabilityCache/TrackedEntityState.h"

namespace veranda::reachabilityCache {

const char* toString(EntityReachability reachability) {
  switch (reachability) {
    case EntityReachability::UNKNOWN:
      return "unknown";
    case EntityReachability::REACHABLE:
      return "reachable";
    case EntityReachability::UNREACHABLE:
      return "unreachable";
  }
  return "unknown";
}

const char* toString(ReachabilityCause cause) {
  switch (cause) {
    case ReachabilityCause::NONE:
      return "none";
    case ReachabilityCause::TRACKING_STARTED:
      return "trackingStarted";
    case ReachabilityCause::CYCLE_RESULT:
      return "cycleResult";
    case ReachabilityCause::MANUAL_CHECK_RESULT:
      return "manualCheckResult";
    case ReachabilityCause::CONNECTIVITY_EVENT:
      return "connectivityEvent";
    case ReachabilityCause::DROPPED_BY_PROVIDER:
      return "droppedByProvider";
    case ReachabilityCause::HOST_CHANGE:
      return "hostChange";
    case ReachabilityCause::HOLD_DOWN_ELAPSED:
      return "holdDownElapsed";
  }
  return "none";
}

}  // namespace veranda::reachabilityCache
