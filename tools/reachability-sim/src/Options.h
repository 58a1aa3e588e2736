// The command line of reachability-sim.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "CommandLine.h"

namespace veranda::reachabilityCache::sim {

struct Options {
  std::string scenarioPath;                // --scenario
  std::optional<int64_t> devices;          // --devices: a generated home of this many
  std::optional<int64_t> durationMs;       // --duration, given in seconds
  std::optional<int64_t> intervalSeconds;  // --interval
  std::optional<double> flapRate;          // --flap-rate: drops per device per minute
  std::optional<uint32_t> seed;            // --seed
  std::string preferredAdapter;            // --prefer
  std::string timelinePath;                // --timeline
  int logPriority = 3;                     // --log-level, as an Android log priority
  bool quiet = false;                      // --quiet: no library log lines at all
  bool fast = false;                       // --fast: virtual time
  std::optional<bool> tracker;             // --tracker / --no-tracker
};

using OptionsResult = tools::ParsedOptions<Options>;

// Parses the arguments after the program name. "--name value" and
// "--name=value" are both accepted.
OptionsResult parseOptions(const std::vector<std::string>& arguments);

// The --help text.
std::string usageText();

}  // namespace veranda::reachabilityCache::sim
