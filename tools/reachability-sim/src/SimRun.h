// Plays a scenario through a real ReachabilityCache, as a host would run it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "Scenario.h"
#include "Timeline.h"

namespace veranda::reachabilityCache::sim {

// One entity as the cache holds it at the end of a run.
struct TableRow {
  std::string entityId;
  bool cached = false;
  bool reachable = false;
  std::vector<std::pair<std::string, std::string>> endpoints;  // (endpoint id, adapter)
  std::string preferredEndpoint;  // for the scenario's preferred adapter
};

struct RunReport {
  std::string name;
  std::vector<std::string> entities;  // the scenario's, in its order
  int64_t durationMs = 0;
  int64_t intervalSeconds = 0;
  std::string preferredAdapter;
  std::vector<int64_t> cycleTimesMs;
  std::vector<EntityHistory> histories;  // parallel to `entities`
  std::vector<TableRow> table;           // parallel to `entities`
  std::size_t notifications = 0;         // listener notifications, all entities
  std::size_t toldReachable = 0;         // of which "reachable"
};

struct RunSettings {
  std::ostream* timeline = nullptr;  // where the live timeline goes; null for none
  uint32_t seed = 1;                 // seeds the driver's answer delays
  bool fast = false;                 // virtual time, as fast as the machine allows
  bool tracker = true;               // an entity tracker beside the listener, in its own column
};

// Builds the home in a simulated driver, creates the cache over it with the
// library's appliance-driver checker behind a guard, a listener and, with
// `tracker`, an entity tracker, plays the scenario's events at their times for its duration,
// then stops the clock, reads the final state and tears everything down.
// Blocks for the whole run: the duration on the wall clock, or as long as
// the work takes in virtual time (`fast`), where the same scenario and seed
// always print the same timeline. One run at a time per process.
RunReport runScenario(const Scenario& scenario, const RunSettings& settings);

}  // namespace veranda::reachabilityCache::sim
