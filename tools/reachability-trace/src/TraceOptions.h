// The command line of reachability-trace.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "CommandLine.h"

namespace veranda::reachabilityCache::trace {

struct TraceOptions {
  std::string capturePath;  // "-" for standard input
  std::string entityId;     // --entity: tell this entity's story instead of the report
  std::string at;           // --at: with --entity, its answer at this moment instead
  std::string from;         // --from, --to: the window (empty: open)
  std::string to;
  std::string timelinePath;  // --timeline: also draw the picture
  std::string pagePath;      // --html: also write the page
  bool json = false;         // --json: the JSON document instead of the report
  std::size_t cache = 0;     // --cache: 1-based, for the picture; 0 for the last cache
};

using TraceOptionsResult = tools::ParsedOptions<TraceOptions>;

// Parses the arguments after the program name.
TraceOptionsResult parseTraceOptions(const std::vector<std::string>& arguments);

// The --help text.
std::string traceUsageText();

}  // namespace veranda::reachabilityCache::trace
