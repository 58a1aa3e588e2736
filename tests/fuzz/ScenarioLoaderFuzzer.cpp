// Fuzzes the simulator's scenario loader. Any text is either read as the
// JSON library reads it, without a key given twice in one object, or refused
// with one short line; a scenario the loader accepts keeps the promises of
// the scenario format.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <vector>

#include "FuzzCheck.h"
#include "JsonDocument.h"
#include "ScenarioLoader.h"

namespace {

using nlohmann::json;
using veranda::reachabilityCache::sim::Device;
using veranda::reachabilityCache::sim::Event;
using veranda::reachabilityCache::sim::LoadResult;
using veranda::reachabilityCache::sim::parseJsonDocument;
using veranda::reachabilityCache::sim::parseScenario;
using veranda::reachabilityCache::sim::Scenario;

// Origin, position, the library's wording of a syntax error and an excerpt
// fit in this; a whole value would not.
constexpr std::size_t LONGEST_ERROR = 400;
constexpr int64_t LONGEST_RUN_MS = 86400000;

// The keys of every object in `document`, counted without recursion.
std::size_t keysIn(const json& document) {
  std::size_t keys = 0;
  std::vector<const json*> pending{&document};
  while (!pending.empty()) {
    const json* value = pending.back();
    pending.pop_back();
    keys += value->is_object() ? value->size() : 0;
    for (const json& item : *value) {
      if (item.is_structured()) {
        pending.push_back(&item);
      }
    }
  }
  return keys;
}

bool isOneShortLine(const std::string& text, const std::string& origin) {
  return text.compare(0, origin.size(), origin) == 0 && text.size() <= LONGEST_ERROR &&
         std::none_of(text.begin(), text.end(),
                      [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; });
}

bool says(const std::string& error, const char* what) {
  return error.find(what) != std::string::npos;
}

void checkDocument(const std::string& text) {
  json document;
  std::string error;
  const bool parsed = parseJsonDocument(text, "fuzz", document, error);
  std::size_t keysRead = 0;  // repeated keys included
  const json reference = json::parse(
      text,
      [&keysRead](int /*depth*/, json::parse_event_t event, json& /*parsed*/) {
        keysRead += event == json::parse_event_t::key ? 1 : 0;
        return true;
      },
      /*allow_exceptions=*/false);
  FUZZ_CHECK(parsed || isOneShortLine(error, "fuzz"));
  if (reference.is_discarded()) {  // a repeated key may come before the syntax error
    FUZZ_CHECK(!parsed && (says(error, ": malformed JSON: ") || says(error, ": duplicate key")));
    return;
  }
  const bool repeatedKey = keysRead != keysIn(reference);
  FUZZ_CHECK(parsed == !repeatedKey);
  FUZZ_CHECK(parsed ? document == reference : says(error, ": duplicate key"));
}

bool isDocumented(const Scenario& scenario) {
  const std::set<std::string> entities(scenario.entities.begin(), scenario.entities.end());
  std::set<std::string> endpoints;
  for (const Device& device : scenario.devices) {
    if (device.endpointId.empty() || device.adapterName.empty() ||
        entities.count(device.entityId) == 0 || !endpoints.insert(device.endpointId).second) {
      return false;
    }
  }
  int64_t previousMs = 0;
  for (const Event& event : scenario.events) {
    if (event.atMs < previousMs || event.atMs > LONGEST_RUN_MS ||
        endpoints.count(event.endpointId) == 0) {
      return false;
    }
    previousMs = event.atMs;
  }
  return !scenario.entities.empty() && entities.size() == scenario.entities.size() &&
         entities.count("") == 0 && !scenario.devices.empty() && scenario.durationMs >= 1 &&
         scenario.durationMs <= LONGEST_RUN_MS && scenario.intervalSeconds >= 1 &&
         scenario.intervalSeconds <= 86400 && scenario.latencyMinMs >= 0 &&
         scenario.latencyMinMs <= scenario.latencyMaxMs && scenario.latencyMaxMs <= 60000 &&
         scenario.effectiveCacheSize() >= 1 && scenario.flaps.perMinute == 0;
}

}  // namespace

// NOLINTNEXTLINE(readability-identifier-naming): the name libFuzzer calls.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  checkDocument(text);
  const LoadResult result = parseScenario(text, "fuzz");
  FUZZ_CHECK(result.ok ? result.error.empty() && isDocumented(result.scenario)
                       : isOneShortLine(result.error, "fuzz"));
  return 0;
}
