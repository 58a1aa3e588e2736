#include "ScenarioFromOptions.h"

#include "GeneratedHome.h"

namespace veranda::reachabilityCache::sim {

LoadResult scenarioFromOptions(const Options& options) {
  LoadResult result;
  if (options.devices) {
    GeneratedHomeSettings settings;
    settings.devices = *options.devices;
    settings.durationMs = options.durationMs.value_or(settings.durationMs);
    settings.intervalSeconds = options.intervalSeconds.value_or(settings.intervalSeconds);
    settings.flapRate = options.flapRate.value_or(settings.flapRate);
    settings.seed = options.seed.value_or(settings.seed);
    result.scenario = generateHome(settings);
    result.ok = true;
  } else if (!options.scenarioPath.empty()) {
    result = loadScenarioFile(options.scenarioPath);
  } else {
    result = loadDefaultHome();
  }
  if (!result.ok) {
    return result;
  }
  Scenario& scenario = result.scenario;
  scenario.durationMs = options.durationMs.value_or(scenario.durationMs);
  scenario.intervalSeconds = options.intervalSeconds.value_or(scenario.intervalSeconds);
  if (!options.preferredAdapter.empty()) {
    scenario.preferredAdapter = options.preferredAdapter;
  }
  return result;
}

}  // namespace veranda::reachabilityCache::sim
