// Homes of any size, made up from a seed.
#pragma once

#include <cstdint>

#include "Scenario.h"

namespace veranda::reachabilityCache::sim {

struct GeneratedHomeSettings {
  int64_t devices = 100;
  int64_t durationMs = 10000;
  int64_t intervalSeconds = 2;
  double flapRate = 2;  // connectivity drops per device per minute
  uint32_t seed = 1;
};

// `devices` devices, one entity each, spread round-robin over the seven
// supported adapters. Each device drops offline at random times (a Poisson
// process of `flapRate` per minute) and comes back 0.2 to 3 s later: the
// scenario's flaps, which an EventStream makes as the run goes. The same
// settings always give the same home.
Scenario generateHome(const GeneratedHomeSettings& settings);

}  // namespace veranda::reachabilityCache::sim
