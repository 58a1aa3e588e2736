// reachability-sim: plays a simulated home through a real ReachabilityCache
// and shows what the cache decided. See --help.
#include <android/log.h>

#include <cerrno>
#include <cstdio>
#include <iostream>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "CommandLine.h"
#include "DeviceLog.h"
#include "Options.h"
#include "Report.h"
#include "ScenarioFromOptions.h"
#include "SimRun.h"
#include "SvgWriter.h"

namespace {

using namespace veranda::reachabilityCache;
using namespace veranda::reachabilityCache::sim;

const char* const PROGRAM = "reachability-sim";

int fail(const std::string& error, int status) { return tools::failTool(PROGRAM, error, status); }

// Creates the file now, so that a bad path fails before a long run. Returns
// the reason it cannot be written, or an empty text.
std::string cannotWrite(const std::string& path) {
  std::FILE* file = std::fopen(path.c_str(), "wb");
  if (file == nullptr || std::fclose(file) != 0) {
    return "cannot write the timeline file " + path + ": " + std::generic_category().message(errno);
  }
  return "";
}

}  // namespace

int main(int argc, char** argv) {
  const OptionsResult parsed = parseOptions(tools::argumentsOf(argc, argv));
  if (const std::optional<int> status = tools::startTool(PROGRAM, parsed, usageText)) {
    return *status;
  }
  const Options& options = parsed.options;
  const LoadResult home = scenarioFromOptions(options);
  if (!home.ok) {
    return fail(home.error, 2);
  }
  if (!options.timelinePath.empty()) {
    const std::string error = cannotWrite(options.timelinePath);
    if (!error.empty()) {
      return fail(error, 2);
    }
  }
  const int minimumPriority = options.quiet ? ANDROID_LOG_SILENT : options.logPriority;
  if (options.fast) {
    // In virtual time the lines carry the run's time, as a device's would.
    static DeviceLog deviceLog(stderr, minimumPriority);
    deviceLog.install();
  } else {
    __android_log_set_minimum_priority(minimumPriority);
  }

  printHomeSummary(home.scenario, std::cout);
  RunSettings settings;
  settings.timeline = &std::cout;
  settings.seed = options.seed.value_or(1);
  settings.fast = options.fast;
  settings.tracker = options.tracker.value_or(true);
  const RunReport report = runScenario(home.scenario, settings);
  printFinalTable(report, std::cout);

  if (!options.timelinePath.empty()) {
    std::string error;
    if (!writeTimelineSvg(report, options.timelinePath, error)) {
      return fail(error, 1);
    }
    std::cout << "Timeline picture written to " << options.timelinePath << '\n';
  }
  return 0;
}
