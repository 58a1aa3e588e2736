#include "Options.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <map>

namespace veranda::reachabilityCache::sim {
namespace {

constexpr double kMaxSeconds = 86400;

bool parseNumber(const std::string& text, double& out) {
  if (text.empty()) {
    return false;
  }
  char* end = nullptr;
  errno = 0;
  out = std::strtod(text.c_str(), &end);
  return errno == 0 && *end == '\0' && std::isfinite(out);
}

bool parseWhole(const std::string& text, int64_t& out) {
  if (text.empty()) {
    return false;
  }
  char* end = nullptr;
  errno = 0;
  out = std::strtoll(text.c_str(), &end, 10);
  return errno == 0 && *end == '\0';
}

std::string quoted(const std::string& text) { return "'" + text + "'"; }

// Each option that takes a value: its name and what to do with the value.
// A handler returns an error text, empty on success.
using Handler = std::function<std::string(const std::string& value, Options& options)>;

std::string readWhole(const std::string& name, const std::string& value, int64_t minimum,
                      int64_t maximum, const char* unit, int64_t& out) {
  double number = 0;
  if (!parseWhole(value, out)) {
    if (parseNumber(value, number)) {
      return name + " must be a whole number" + (*unit != '\0' ? std::string(" of ") + unit : "") +
             ", got " + quoted(value);
    }
    return name + " expects a number, got " + quoted(value);
  }
  if (out < minimum || out > maximum) {
    return name + " must be from " + std::to_string(minimum) + " to " + std::to_string(maximum) +
           ", got " + value;
  }
  return "";
}

std::string readSeconds(const std::string& name, const std::string& value, int64_t& outMs) {
  double seconds = 0;
  if (!parseNumber(value, seconds)) {
    return name + " expects a number of seconds, got " + quoted(value);
  }
  if (seconds <= 0 || seconds > kMaxSeconds) {
    return name + " must be more than 0 and at most 86400 seconds, got " + value;
  }
  outMs = std::llround(seconds * 1000);
  return "";
}

const std::map<std::string, Handler>& valueOptions() {
  static const std::map<std::string, Handler> handlers = {
      {"--scenario",
       [](const std::string& value, Options& options) {
         options.scenarioPath = value;
         return std::string();
       }},
      {"--timeline",
       [](const std::string& value, Options& options) {
         options.timelinePath = value;
         return std::string();
       }},
      {"--prefer",
       [](const std::string& value, Options& options) {
         options.preferredAdapter = value;
         return std::string();
       }},
      {"--devices",
       [](const std::string& value, Options& options) {
         int64_t count = 0;
         std::string error = readWhole("--devices", value, 1, 100000, "devices", count);
         options.devices = count;
         return error;
       }},
      {"--duration",
       [](const std::string& value, Options& options) {
         int64_t ms = 0;
         std::string error = readSeconds("--duration", value, ms);
         options.durationMs = ms;
         return error;
       }},
      {"--interval",
       [](const std::string& value, Options& options) {
         int64_t seconds = 0;
         std::string error = readWhole("--interval", value, 1, 86400, "seconds", seconds);
         options.intervalSeconds = seconds;
         return error;
       }},
      {"--flap-rate",
       [](const std::string& value, Options& options) {
         double rate = 0;
         if (!parseNumber(value, rate)) {
           return "--flap-rate expects a number, got " + quoted(value);
         }
         if (rate < 0 || rate > 600) {
           return "--flap-rate must be from 0 to 600 drops per device per minute, got " + value;
         }
         options.flapRate = rate;
         return std::string();
       }},
      {"--seed",
       [](const std::string& value, Options& options) {
         int64_t seed = 0;
         std::string error = readWhole("--seed", value, 0, 4294967295LL, "", seed);
         options.seed = static_cast<uint32_t>(seed);
         return error;
       }},
      {"--log-level",
       [](const std::string& value, Options& options) {
         static const std::map<std::string, int> levels = {
             {"debug", 3}, {"info", 4}, {"warn", 5}, {"error", 6}};
         const auto found = levels.find(value);
         if (found == levels.end()) {
           return "--log-level must be debug, info, warn or error, got " + quoted(value);
         }
         options.logPriority = found->second;
         return std::string();
       }},
  };
  return handlers;
}

std::string checkCombination(const Options& options) {
  if (options.devices && !options.scenarioPath.empty()) {
    return "--devices and --scenario cannot be combined: pick a generated or a scenario home";
  }
  if (options.flapRate && !options.devices) {
    return "--flap-rate applies only to a generated home (--devices N)";
  }
  return "";
}

}  // namespace

OptionsResult parseOptions(const std::vector<std::string>& arguments) {
  OptionsResult result;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const std::string& argument = arguments[i];
    if (argument == "--help" || argument == "-h") {
      result.options.help = true;
      continue;
    }
    if (argument == "--quiet" || argument == "-q") {
      result.options.quiet = true;
      continue;
    }
    const std::size_t equals = argument.find('=');
    const std::string name = argument.substr(0, equals);
    const auto handler = valueOptions().find(name);
    if (argument.rfind("--", 0) != 0 || handler == valueOptions().end()) {
      result.error = (argument.rfind('-', 0) == 0 ? "unknown option " : "unexpected argument ") +
                     quoted(argument);
      return result;
    }
    std::string value;
    if (equals != std::string::npos) {
      value = argument.substr(equals + 1);
    } else if (i + 1 < arguments.size()) {
      value = arguments[++i];
    } else {
      result.error = name + " needs a value";
      return result;
    }
    result.error = handler->second(value, result.options);
    if (!result.error.empty()) {
      return result;
    }
  }
  result.error = checkCombination(result.options);
  result.ok = result.error.empty();
  return result;
}

std::string usageText() {
  return R"(Usage: reachability-sim [options]

Plays a simulated home through a real ReachabilityCache (the library's
appliance-driver checker over a simulated driver, a provider, a listener)
and shows what the cache decided.

Standard output: a timeline of every listener notification (seconds since the
cache was created, entity, endpoint, adapter, new state, and what
isEntityReachable answers at that moment), interleaved with what the home did
(*), each periodic cycle (.) and entities leaving the cache unannounced (~);
then a table of every entity as the cache holds it at the end.
Standard error: the library's own log lines, logcat style.

Home (default: the embedded home, 17 entities on all seven adapters, 10 s):
  --scenario FILE     a JSON home (format below)
  --devices N         a generated home of N devices, one entity each, spread
                      over the seven supported adapters (1..100000)
  --flap-rate R       generated home: connectivity drops per device per
                      minute (default 2); each comes back 0.2 to 3 s later
  --seed N            seeds the generated home and the driver's answer delays
                      (default 1)

Timing (override the home's own values):
  --duration S        seconds to run, fractions allowed (default 10)
  --interval S        the cache's refresh period in whole seconds, as its
                      Config takes it (default 2). The first cycle is always
                      1 s after start. Connectivity events (flaps) are timed to
                      the millisecond and reach the cache between cycles.
  --prefer ADAPTER    the adapter asked for in the final table's "preferred"
                      column (default: the home's, else PROT_WIFI-ADAPTER)

Output:
  --timeline FILE     writes an SVG picture: one row per entity, reachable and
                      unreachable spans. Above 120 entities it draws the 100
                      that changed most, under a band that counts all of them.
  --log-level LEVEL   lowest library log priority shown: debug (default),
                      info, warn or error
  --quiet, -q         no library log lines at all
  --help, -h          this text

Scenario file (JSON; unknown keys are errors):
  {
    "name": "my flat",                 optional
    "duration": 10,                    seconds, optional
    "interval": 2,                     whole seconds, optional
    "preferredAdapter": "PROT_WIFI-ADAPTER",  optional
    "maxCacheSize": 100,               optional (default 2 x entities, >= 100)
    "latencyMs": [20, 80],             driver answer delay range, optional
    "entities": ["lamp", "plug"],
    "devices": [
      {"endpoint": "lamp-zb", "entity": "lamp",
       "adapter": "PROT_ZIGBEE-ADAPTER",
       "driverType": "native",         or "connected"; optional
       "capabilities": ["PowerController:powerState"],  optional
       "online": true,                 reachable at start; optional
       "present": true}                in the home at start; optional
    ],
    "events": [
      {"at": 3.5, "action": "offline", "endpoint": "lamp-zb"}
    ]
  }
  Actions: offline / online (the driver flips the device and publishes a
  connectivity event), remove (the provider stops naming it and the driver
  forgets it), add (the reverse), push (the host hands its record to the
  cache with updateEndpoints). Events past the duration never run.
  See tools/reachability-sim/README.md and scenarios/example.json.

Exit status: 0 after a run; 2 for a bad option, a bad scenario or a timeline
path that cannot be created (one line on standard error); 1 when writing the
timeline fails after the run.
)";
}

}  // namespace veranda::reachabilityCache::sim
