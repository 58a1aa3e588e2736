// Turns the command line into the scenario to run.
#pragma once

#include "Options.h"
#include "ScenarioLoader.h"

namespace veranda::reachabilityCache::sim {

// The generated home (--devices), the scenario file (--scenario) or the
// default home, with --duration, --interval and --prefer applied on top.
LoadResult scenarioFromOptions(const Options& options);

}  // namespace veranda::reachabilityCache::sim
