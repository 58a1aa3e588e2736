// The model of a simulated home: its entities, the devices that serve them,
// and the timed events that change the home while the cache watches it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "applianceDriver/ApplianceDriver.h"

namespace veranda::reachabilityCache::sim {

// What an event does to the home.
enum class Action {
  OFFLINE,  // the driver marks the device unreachable and publishes a connectivity event
  ONLINE,   // the driver marks it reachable again and publishes a connectivity event
  REMOVE,   // the device leaves the home: the provider stops naming it, the driver forgets it
  ADD,      // the device joins the home: the driver has it, the provider names it
  PUSH,     // the host hands the device's record to the cache with updateEndpoints()
};

// The word used for `action` in scenario files and output ("offline", ...).
const char* actionName(Action action);

// One endpoint of the home, as the driver reports it and the provider names it.
struct Device {
  std::string endpointId;
  std::string entityId;
  std::string adapterName;
  applianceDriver::ApplianceDriverType driverType = applianceDriver::ApplianceDriverType::NATIVE;
  std::vector<std::pair<std::string, std::string>> capabilities;  // (name, qualifier)
  bool online = true;                                             // reachable at the start
  bool present = true;  // in the home (driver and provider) at the start
};

struct Event {
  int64_t atMs = 0;  // since the cache was created
  Action action = Action::OFFLINE;
  std::string endpointId;
};

// Connectivity drops made up while the scenario runs: every device drops
// offline at random times, `perMinute` times a minute on average (a Poisson
// process), and comes back 0.2 to 3 s later. The same seed gives the same
// drops.
struct GeneratedFlaps {
  double perMinute = 0;  // 0: none
  uint32_t seed = 1;
};

struct Scenario {
  std::string name;
  int64_t durationMs = 10000;
  int64_t intervalSeconds = 2;  // the cache's refresh period; whole seconds
  std::string preferredAdapter = "PROT_WIFI-ADAPTER";
  std::size_t maxCacheSize = 0;  // 0: twice the number of entities, at least 100
  int64_t latencyMinMs = 20;     // how long the driver takes to answer a check
  int64_t latencyMaxMs = 80;
  std::vector<std::string> entities;  // in display order
  std::vector<Device> devices;
  std::vector<Event> events;  // sorted by time; equal times keep file order
  GeneratedFlaps flaps;       // played together with `events`

  // Null when no device has this endpoint id.
  const Device* findDevice(const std::string& endpointId) const;
  // maxCacheSize, or its default when 0.
  std::size_t effectiveCacheSize() const;
};

}  // namespace veranda::reachabilityCache::sim
