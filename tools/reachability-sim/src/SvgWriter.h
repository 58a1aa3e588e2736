// The timeline picture of a run: the report turned into the shared
// renderer's input.
#pragma once

#include <string>

#include "SimRun.h"
#include "TimelinePicture.h"

namespace veranda::reachabilityCache::sim {

// One row per entity of the scenario with what isEntityReachable answered
// over the run, a mark at each notification, and the periodic cycles.
tools::TimelinePicture timelinePicture(const RunReport& report);

// The SVG document of timelinePicture(report).
std::string timelineSvg(const RunReport& report);

// Writes timelineSvg(report) to `path`; on failure returns false and sets
// `error` to one line.
bool writeTimelineSvg(const RunReport& report, const std::string& path, std::string& error);

}  // namespace veranda::reachabilityCache::sim
