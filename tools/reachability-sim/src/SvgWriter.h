// A picture of each entity's reachability over a run.
#pragma once

#include <cstddef>
#include <string>

#include "SimRun.h"

namespace veranda::reachabilityCache::sim {

// Homes with more entities than this get a counting band and a selection of
// rows instead of one row each.
inline constexpr std::size_t kMaxSvgRows = 120;
// Rows drawn for such homes: the entities that changed most.
inline constexpr std::size_t kSelectedSvgRows = 100;

// The SVG document: one row per entity with reachable, unreachable and
// not-cached spans, the periodic cycles as dashed lines, and labelled axes.
std::string timelineSvg(const RunReport& report);

// Writes timelineSvg(report) to `path`; on failure returns false and sets
// `error` to one line.
bool writeTimelineSvg(const RunReport& report, const std::string& path, std::string& error);

}  // namespace veranda::reachabilityCache::sim
