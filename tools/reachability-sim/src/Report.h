// What a person reads around the timeline: the home before the run and the
// cache's final state after it.
#pragma once

#include <ostream>

#include "Scenario.h"
#include "SimRun.h"

namespace veranda::reachabilityCache::sim {

// One heading line, then the devices worth knowing about before the run:
// those on adapters the cache does not support, offline or absent at start.
void printHomeSummary(const Scenario& scenario, std::ostream& out);

// One row per entity: reachable or not, its endpoints with their adapters and
// the preferred endpoint for the report's adapter; then a line of totals.
void printFinalTable(const RunReport& report, std::ostream& out);

}  // namespace veranda::reachabilityCache::sim
