// Reads scenarios from JSON text and checks them.
#pragma once

#include <string>

#include "Scenario.h"

namespace veranda::reachabilityCache::sim {

struct LoadResult {
  bool ok = false;
  std::string error;  // one line, starting with the origin, when !ok
  Scenario scenario;
};

// Parses and checks `text`; `origin` names it in errors ("home.json:3:7: ...").
LoadResult parseScenario(const std::string& text, const std::string& origin);

// Reads the file at `path`, then parses it as parseScenario() does.
LoadResult loadScenarioFile(const std::string& path);

// The embedded default home: scenarios/default-home.json as it was at build time.
const char* defaultHomeJson();
LoadResult loadDefaultHome();

}  // namespace veranda::reachabilityCache::sim
