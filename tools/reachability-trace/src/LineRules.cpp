#include "LineRules.h"

#include <algorithm>
#include <initializer_list>

namespace veranda::reachabilityCache::trace {
namespace {

struct LabelRule {
  std::string_view label;
  std::string_view tag;
  // Fields every line with the label has, when its first field is `when`
  // (any first field when empty).
  std::string_view when;
  std::initializer_list<std::string_view> keys;
};

constexpr std::string_view FACADE = "ReachabilityCache-ReachabilityCache";
constexpr std::string_view STORE = "ReachabilityCache-CacheCore";
constexpr std::string_view UPDATER = "ReachabilityCache-ReachabilityUpdater";
constexpr std::string_view CHECKER = "ReachabilityCache-ApplianceDriverChecker";

const LabelRule RULES[] = {
    {"ReachabilityCache", FACADE, "event", {"event", "maxCacheSize", "periodicUpdates"}},
    {"~ReachabilityCache", FACADE, "event", {"event", "cacheSize"}},
    {"getPreferredEndpoint", FACADE, "", {}},
    {"CacheCore", STORE, "", {"maxSize"}},
    {"insertEndpoint", STORE, "action", {"action", "entityId", "endpointId"}},
    {"insertEndpoint", STORE, "reason", {}},
    {"removeEndpoint", STORE, "action", {"action", "entityId", "endpointId"}},
    {"removeEntity", STORE, "", {"entityId"}},
    {"clear", STORE, "action", {"action", "previousSize"}},
    {"clearEndpointCapabilities", STORE, "action", {"action", "entityId", "endpointId"}},
    {"isEntityPresent", STORE, "", {}},
    {"isEntityReachable", STORE, "entityId", {"entityId", "reachable"}},
    {"isCapabilityReachable", STORE, "", {}},
    {"isCapabilityReachableByDriver", STORE, "", {}},
    {"getEndpointIdForEntity", STORE, "", {}},
    {"getEntityIdForEndpoint", STORE, "", {}},
    {"registerReachabilityListener", STORE, "", {}},
    {"unregisterReachabilityListener", STORE, "", {}},
    {"notifyReachabilityListeners",
     STORE,
     "action",
     {"action", "endpointId", "entityId", "isReachable", "listenerCount"}},
    {"ReachabilityUpdater", UPDATER, "", {}},
    {"~ReachabilityUpdater", UPDATER, "", {}},
    {"startPeriodicUpdates", UPDATER, "", {}},
    {"stopPeriodicUpdates", UPDATER, "", {}},
    {"performPeriodicUpdate", UPDATER, "", {}},
    {"", UPDATER, "", {}},  // the manual trigger's task
    {"processReachabilityResults",
     UPDATER,
     "reachable",
     {"reachable", "unreachable", "changed", "details"}},
    {"enableProactiveUpdates", UPDATER, "", {}},
    {"disableProactiveUpdates", UPDATER, "", {}},
    {"ApplianceDriverReachabilityChecker", CHECKER, "", {}},
    {"checkReachability", CHECKER, "", {}},
    {"processDiscoveredDevices", CHECKER, "requestId", {"requestId", "deviceCount", "resultCount"}},
    {"updateResultWithDiscoveredDevice", CHECKER, "", {}},
    {"validateCallbackParams", CHECKER, "", {}},
    {"registerReachabilityUpdateCallback", CHECKER, "", {}},
    {"unregisterReachabilityUpdateCallback", CHECKER, "", {}},
    {"stateChangeCallback", CHECKER, "", {}},
};

}  // namespace

bool isLabelOfTag(std::string_view label, std::string_view tag) {
  for (const LabelRule& rule : RULES) {
    if (rule.label == label) {
      return rule.tag == tag;
    }
  }
  return true;  // a label the trace does not know it leaves to its component
}

bool isWhole(const LibraryLine& line) {
  const std::string_view first = line.fields.empty() ? "" : line.fields.front().key;
  for (const LabelRule& rule : RULES) {
    if (rule.label != line.label || (!rule.when.empty() && rule.when != first)) {
      continue;
    }
    return std::all_of(rule.keys.begin(), rule.keys.end(),
                       [&line](std::string_view key) { return line.get(key).has_value(); });
  }
  return true;
}

}  // namespace veranda::reachabilityCache::trace
