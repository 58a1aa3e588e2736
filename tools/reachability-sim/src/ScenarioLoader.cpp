#include "ScenarioLoader.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <initializer_list>
#include <nlohmann/json.hpp>
#include <set>
#include <system_error>
#include <utility>

#include "Excerpt.h"
#include "JsonDocument.h"

namespace veranda::reachabilityCache::sim {
namespace {

using applianceDriver::ApplianceDriverType;
using nlohmann::json;

constexpr int64_t MAX_SECONDS = 86400;  // one day: longer runs are surely a mistake

// Reads typed values out of the parsed document; the first failure is kept.
class Checker {
 public:
  explicit Checker(std::string origin) : origin_(std::move(origin)) {}

  bool fail(const std::string& path, const std::string& message) {
    if (error_.empty()) {
      error_ = origin_ + ": " + path + ": " + message;
    }
    return false;
  }

  const std::string& error() const { return error_; }

  bool onlyKeys(const json& object, const std::string& path,
                std::initializer_list<const char*> keys) {
    if (!object.is_object()) {
      return fail(path, "expected an object, found " + tools::excerpt(object));
    }
    for (const auto& item : object.items()) {
      if (std::none_of(keys.begin(), keys.end(),
                       [&](const char* key) { return item.key() == key; })) {
        return fail(path, "unknown key " + tools::quotedExcerpt(item.key()));
      }
    }
    return true;
  }

  bool text(const json& value, const std::string& path, std::string& out) {
    if (!value.is_string() || value.get_ref<const std::string&>().empty()) {
      return fail(path, "expected a non-empty string, found " + tools::excerpt(value));
    }
    out = value.get<std::string>();
    return true;
  }

  bool flag(const json& value, const std::string& path, bool& out) {
    if (!value.is_boolean()) {
      return fail(path, "expected true or false, found " + tools::excerpt(value));
    }
    out = value.get<bool>();
    return true;
  }

  bool wholeNumber(const json& value, const std::string& path, int64_t minimum, int64_t maximum,
                   int64_t& out) {
    // An unsigned number above the maximum may not fit an int64_t.
    const bool fits =
        value.is_number_integer() &&
        (!value.is_number_unsigned() || value.get<uint64_t>() <= static_cast<uint64_t>(maximum));
    const bool inRange = fits && value.get<int64_t>() >= minimum && value.get<int64_t>() <= maximum;
    if (!inRange) {
      return fail(path, "expected a whole number from " + std::to_string(minimum) + " to " +
                            std::to_string(maximum) + ", found " + tools::excerpt(value));
    }
    out = value.get<int64_t>();
    return true;
  }

  // Seconds, fractions allowed, converted to milliseconds.
  bool seconds(const json& value, const std::string& path, bool zeroAllowed, int64_t& outMs) {
    if (!value.is_number()) {
      return fail(path, "expected a number of seconds, found " + tools::excerpt(value));
    }
    const double number = value.get<double>();
    if (!std::isfinite(number) || number < 0 || (number == 0 && !zeroAllowed)) {
      return fail(path, std::string("must be ") + (zeroAllowed ? "0 or more" : "more than 0") +
                            " seconds, found " + tools::excerpt(value));
    }
    if (number > MAX_SECONDS) {
      return fail(path, "must be at most " + std::to_string(MAX_SECONDS) + " seconds");
    }
    if (!zeroAllowed && number < 0.001) {
      return fail(path, "must be at least 0.001 seconds (runs are timed in milliseconds), found " +
                            tools::excerpt(value));
    }
    outMs = std::llround(number * 1000);
    return true;
  }

 private:
  std::string origin_;
  std::string error_;
};

bool readDriverType(Checker& check, const json& value, const std::string& path,
                    ApplianceDriverType& out) {
  std::string name;
  if (!check.text(value, path, name)) {
    return false;
  }
  if (name == "native" || name == "connected") {
    out = name == "native" ? ApplianceDriverType::NATIVE : ApplianceDriverType::CONNECTED;
    return true;
  }
  return check.fail(path, "expected \"native\" or \"connected\", found " + tools::excerpt(value));
}

bool readCapabilities(Checker& check, const json& value, const std::string& path,
                      std::vector<std::pair<std::string, std::string>>& out) {
  if (!value.is_array()) {
    return check.fail(path, "expected an array of \"name\" or \"name:qualifier\" strings");
  }
  for (std::size_t i = 0; i < value.size(); ++i) {
    std::string entry;
    if (!check.text(value[i], path + "[" + std::to_string(i) + "]", entry)) {
      return false;
    }
    const std::size_t colon = entry.find(':');
    out.emplace_back(entry.substr(0, colon),
                     colon == std::string::npos ? std::string() : entry.substr(colon + 1));
  }
  return true;
}

bool readDevice(Checker& check, const json& value, const std::string& path,
                const std::set<std::string>& entities, Device& device) {
  if (!check.onlyKeys(
          value, path,
          {"endpoint", "entity", "adapter", "driverType", "capabilities", "online", "present"})) {
    return false;
  }
  for (const char* key : {"endpoint", "entity", "adapter"}) {
    if (!value.contains(key)) {
      return check.fail(path, std::string("missing \"") + key + "\"");
    }
  }
  if (!check.text(value["endpoint"], path + ".endpoint", device.endpointId) ||
      !check.text(value["entity"], path + ".entity", device.entityId) ||
      !check.text(value["adapter"], path + ".adapter", device.adapterName)) {
    return false;
  }
  if (entities.count(device.entityId) == 0) {
    return check.fail(path + ".entity", tools::quotedExcerpt(device.entityId) +
                                            " is not one of the scenario's \"entities\"");
  }
  return (!value.contains("driverType") ||
          readDriverType(check, value["driverType"], path + ".driverType", device.driverType)) &&
         (!value.contains("capabilities") ||
          readCapabilities(check, value["capabilities"], path + ".capabilities",
                           device.capabilities)) &&
         (!value.contains("online") ||
          check.flag(value["online"], path + ".online", device.online)) &&
         (!value.contains("present") ||
          check.flag(value["present"], path + ".present", device.present));
}

bool readAction(Checker& check, const json& value, const std::string& path, Action& out) {
  std::string name;
  if (!check.text(value, path, name)) {
    return false;
  }
  for (Action action :
       {Action::OFFLINE, Action::ONLINE, Action::REMOVE, Action::ADD, Action::PUSH}) {
    if (name == actionName(action)) {
      out = action;
      return true;
    }
  }
  return check.fail(
      path, "unknown action " + tools::excerpt(value) + " (offline, online, remove, add or push)");
}

bool readEvent(Checker& check, const json& value, const std::string& path,
               const std::set<std::string>& endpoints, Event& event) {
  if (!check.onlyKeys(value, path, {"at", "action", "endpoint"})) {
    return false;
  }
  for (const char* key : {"at", "action", "endpoint"}) {
    if (!value.contains(key)) {
      return check.fail(path, std::string("missing \"") + key + "\"");
    }
  }
  if (!check.seconds(value["at"], path + ".at", true, event.atMs) ||
      !readAction(check, value["action"], path + ".action", event.action) ||
      !check.text(value["endpoint"], path + ".endpoint", event.endpointId)) {
    return false;
  }
  if (endpoints.count(event.endpointId) == 0) {
    return check.fail(path + ".endpoint", tools::quotedExcerpt(event.endpointId) +
                                              " is not the endpoint of any device");
  }
  return true;
}

bool readEntities(Checker& check, const json& value, Scenario& scenario) {
  if (!value.is_array() || value.empty()) {
    return check.fail("entities", "expected a non-empty array of entity ids");
  }
  std::set<std::string> seen;
  for (std::size_t i = 0; i < value.size(); ++i) {
    const std::string path = "entities[" + std::to_string(i) + "]";
    std::string id;
    if (!check.text(value[i], path, id)) {
      return false;
    }
    if (!seen.insert(id).second) {
      return check.fail(path, "entity " + tools::quotedExcerpt(id) + " is listed twice");
    }
    scenario.entities.push_back(id);
  }
  return true;
}

bool readDevices(Checker& check, const json& value, Scenario& scenario) {
  if (!value.is_array() || value.empty()) {
    return check.fail("devices", "expected a non-empty array of devices");
  }
  const std::set<std::string> entities(scenario.entities.begin(), scenario.entities.end());
  std::set<std::string> endpoints;
  for (std::size_t i = 0; i < value.size(); ++i) {
    const std::string path = "devices[" + std::to_string(i) + "]";
    Device device;
    if (!readDevice(check, value[i], path, entities, device)) {
      return false;
    }
    if (!endpoints.insert(device.endpointId).second) {
      return check.fail(path + ".endpoint", "endpoint " + tools::quotedExcerpt(device.endpointId) +
                                                " is used by two devices");
    }
    scenario.devices.push_back(std::move(device));
  }
  return true;
}

bool readEvents(Checker& check, const json& value, Scenario& scenario) {
  if (!value.is_array()) {
    return check.fail("events", "expected an array of events");
  }
  std::set<std::string> endpoints;
  for (const Device& device : scenario.devices) {
    endpoints.insert(device.endpointId);
  }
  for (std::size_t i = 0; i < value.size(); ++i) {
    Event event;
    if (!readEvent(check, value[i], "events[" + std::to_string(i) + "]", endpoints, event)) {
      return false;
    }
    scenario.events.push_back(std::move(event));
  }
  std::stable_sort(scenario.events.begin(), scenario.events.end(),
                   [](const Event& a, const Event& b) { return a.atMs < b.atMs; });
  return true;
}

bool readSettings(Checker& check, const json& document, Scenario& scenario) {
  int64_t cacheSize = 0;
  if ((document.contains("name") && !check.text(document["name"], "name", scenario.name)) ||
      (document.contains("duration") &&
       !check.seconds(document["duration"], "duration", false, scenario.durationMs)) ||
      (document.contains("interval") &&
       !check.wholeNumber(document["interval"], "interval", 1, MAX_SECONDS,
                          scenario.intervalSeconds)) ||
      (document.contains("preferredAdapter") &&
       !check.text(document["preferredAdapter"], "preferredAdapter", scenario.preferredAdapter)) ||
      (document.contains("maxCacheSize") &&
       !check.wholeNumber(document["maxCacheSize"], "maxCacheSize", 1, 100000000, cacheSize))) {
    return false;
  }
  scenario.maxCacheSize = static_cast<std::size_t>(cacheSize);
  if (!document.contains("latencyMs")) {
    return true;
  }
  const json& latency = document["latencyMs"];
  if (!latency.is_array() || latency.size() != 2) {
    return check.fail("latencyMs", "expected [minimum, maximum] in milliseconds");
  }
  if (!check.wholeNumber(latency[0], "latencyMs[0]", 0, 60000, scenario.latencyMinMs) ||
      !check.wholeNumber(latency[1], "latencyMs[1]", 0, 60000, scenario.latencyMaxMs)) {
    return false;
  }
  if (scenario.latencyMinMs > scenario.latencyMaxMs) {
    return check.fail("latencyMs", "the minimum is above the maximum");
  }
  return true;
}

}  // namespace

LoadResult parseScenario(const std::string& text, const std::string& origin) {
  LoadResult result;
  json document;
  if (!parseJsonDocument(text, origin, document, result.error)) {
    return result;
  }
  Checker check(origin);
  Scenario& scenario = result.scenario;
  if (!check.onlyKeys(document, "top level",
                      {"name", "duration", "interval", "preferredAdapter", "maxCacheSize",
                       "latencyMs", "entities", "devices", "events"})) {
    result.error = check.error();
    return result;
  }
  for (const char* key : {"entities", "devices"}) {
    if (!document.contains(key)) {
      result.error = origin + ": missing \"" + key + "\"";
      return result;
    }
  }
  result.ok = readSettings(check, document, scenario) &&
              readEntities(check, document["entities"], scenario) &&
              readDevices(check, document["devices"], scenario) &&
              (!document.contains("events") || readEvents(check, document["events"], scenario));
  result.error = check.error();
  return result;
}

LoadResult loadScenarioFile(const std::string& path) {
  LoadResult result;
  std::FILE* file = std::fopen(path.c_str(), "rb");
  if (file == nullptr) {
    result.error =
        "cannot open scenario file " + path + ": " + std::generic_category().message(errno);
    return result;
  }
  std::string text;
  char buffer[8192];
  std::size_t count = 0;
  while ((count = std::fread(buffer, 1, sizeof(buffer), file)) > 0) {
    text.append(buffer, count);
  }
  const bool failed = std::ferror(file) != 0;
  const int readErrno = errno;
  std::fclose(file);
  if (failed) {
    result.error =
        "cannot read scenario file " + path + ": " + std::generic_category().message(readErrno);
    return result;
  }
  return parseScenario(text, path);
}

LoadResult loadDefaultHome() { return parseScenario(defaultHomeJson(), "default home"); }

}  // namespace veranda::reachabilityCache::sim
