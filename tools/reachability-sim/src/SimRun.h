// Plays a scenario through a real ReachabilityCache, as a host would run it.
#pragma once

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
  std::vector<Notification> notifications;
  std::vector<int64_t> cycleTimesMs;
  std::vector<std::vector<StateChange>> states;  // parallel to `entities`
  std::vector<TableRow> table;                   // parallel to `entities`
};

struct RunSettings {
  std::ostream* timeline = nullptr;  // where the live timeline goes; null for none
  uint32_t seed = 1;                 // seeds the driver's answer delays
  int64_t sampleEveryMs = 100;       // how often the cache's contents are looked at
};

// Builds the home in a simulated driver, creates the cache over it with the
// library's appliance-driver checker and a provider, plays the scenario's
// events at their times for its duration, reads the final state, then shuts
// the driver down before destroying the cache. Blocks for the whole run.
RunReport runScenario(const Scenario& scenario, const RunSettings& settings);

}  // namespace veranda::reachabilityCache::sim
