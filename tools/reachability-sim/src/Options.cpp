#include "Options.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <map>
#include <utility>

namespace veranda::reachabilityCache::sim {
namespace {

constexpr double MAX_SECONDS = 86400;
// The simulator plays whole milliseconds: nothing shorter can run.
constexpr double MIN_SECONDS = 0.001;

// Digits with at most one decimal point, after an optional minus sign: no
// blanks, no plus sign, no exponent, no hexadecimal, no "inf" or "nan".
bool isPlainDecimal(const std::string& text, bool fraction) {
  std::size_t digits = 0;
  std::size_t points = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c >= '0' && c <= '9') {
      ++digits;
    } else if (c == '.' && fraction) {
      ++points;
    } else if (c != '-' || i != 0) {
      return false;
    }
  }
  return digits > 0 && points <= 1;
}

bool parseNumber(const std::string& text, double& out) {
  if (!isPlainDecimal(text, true)) {
    return false;
  }
  char* end = nullptr;
  errno = 0;
  out = std::strtod(text.c_str(), &end);
  return errno == 0 && *end == '\0' && std::isfinite(out);
}

bool parseWhole(const std::string& text, int64_t& out) {
  if (!isPlainDecimal(text, false)) {
    return false;
  }
  char* end = nullptr;
  errno = 0;
  out = std::strtoll(text.c_str(), &end, 10);
  return errno == 0 && *end == '\0';
}

const std::map<std::string, int>& logLevels() {
  static const std::map<std::string, int> LEVELS = {
      {"debug", 3}, {"info", 4}, {"warn", 5}, {"error", 6}};
  return LEVELS;
}

// Each check returns an error text without the option's name (CLI11 puts
// "--name: " in front), or an empty text when the value is good.
CLI::Validator wholeNumber(int64_t minimum, int64_t maximum, const std::string& unit) {
  return {[=](std::string& value) -> std::string {
            int64_t number = 0;
            double real = 0;
            if (!parseWhole(value, number)) {
              return parseNumber(value, real)
                         ? "must be a whole number" + (unit.empty() ? "" : " of " + unit) +
                               ", got " + tools::quotedText(value)
                         : "expects a number, got " + tools::quotedText(value);
            }
            if (number < minimum || number > maximum) {
              return "must be from " + std::to_string(minimum) + " to " + std::to_string(maximum) +
                     ", got " + value;
            }
            return "";
          },
          "", ""};
}

CLI::Validator seconds() {
  return {[](std::string& value) -> std::string {
            double number = 0;
            if (!parseNumber(value, number)) {
              return "expects a number of seconds, got " + tools::quotedText(value);
            }
            if (number <= 0 || number > MAX_SECONDS) {
              return "must be more than 0 and at most 86400 seconds, got " + value;
            }
            if (number < MIN_SECONDS) {
              return "must be at least 0.001 seconds (the simulator plays whole milliseconds), "
                     "got " +
                     value;
            }
            return "";
          },
          "", ""};
}

CLI::Validator flapRate() {
  return {[](std::string& value) -> std::string {
            double rate = 0;
            if (!parseNumber(value, rate)) {
              return "expects a number, got " + tools::quotedText(value);
            }
            if (rate < 0 || rate > 600) {
              return "must be from 0 to 600 drops per device per minute, got " + value;
            }
            return "";
          },
          "", ""};
}

CLI::Validator logLevel() {
  return {[](std::string& value) -> std::string {
            return logLevels().count(value) > 0
                       ? ""
                       : "must be debug, info, warn or error, got " + tools::quotedText(value);
          },
          "", ""};
}

// The raw texts of the options that take a value; converted once CLI11 has
// read and checked them.
struct RawOptions {
  std::string devices;
  std::string duration;
  std::string interval;
  std::string flapRate;
  std::string seed;
  std::string logLevel;
  bool tracker = false;
  bool noTracker = false;
};

const char* const DESCRIPTION =
    "Plays a simulated home through a real ReachabilityCache (the library's\n"
    "appliance-driver checker over a simulated driver, a provider, a listener)\n"
    "and shows what the cache decided.\n\n"
    "Standard output: a timeline of every listener notification (seconds since the\n"
    "cache was created, entity, endpoint, adapter, new state, and what\n"
    "isEntityReachable answers at that moment) and, in the last column, each change\n"
    "of isEntityReachable as an entity tracker tells it, interleaved with what the\n"
    "home did (*, before what it causes), each periodic cycle (.) and changes that\n"
    "listeners are not told (~); then a table of every entity as the cache holds it\n"
    "at the end.\n"
    "Standard error: the library's own log lines, logcat style (with --fast in\n"
    "logcat's threadtime layout, stamped with the run's virtual time).\n\n"
    "Home (default: the embedded home, 17 entities on all seven adapters, 10 s).\n"
    "Options override the home's own timing. The first cycle is always 1 s after\n"
    "start; connectivity events (flaps) are timed to the millisecond and reach the\n"
    "cache between cycles. The run takes as long as the home's duration, or with\n"
    "--fast as long as the work takes.\n";

const char* const FOOTER = R"(Scenario file (JSON; unknown keys and keys given twice are errors):
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

void describe(CLI::App& app, Options& options, RawOptions& raw) {
  app.description(DESCRIPTION);
  app.footer(FOOTER);
  app.get_formatter()->column_width(26);
  app.add_option("--scenario", options.scenarioPath, "a JSON home (format below)")
      ->type_name("FILE")
      ->check(tools::nonEmptyPath());
  app.add_option("--devices", raw.devices,
                 "a generated home of N devices, one entity each,\n"
                 "spread over the seven supported adapters (1..100000)")
      ->type_name("N")
      ->check(wholeNumber(1, 100000, "devices"));
  app.add_option("--flap-rate", raw.flapRate,
                 "generated home: connectivity drops per device per\n"
                 "minute (default 2); each comes back 0.2 to 3 s later")
      ->type_name("R")
      ->check(flapRate());
  app.add_option("--seed", raw.seed,
                 "seeds the generated home and the driver's answer\ndelays (default 1)")
      ->type_name("N")
      ->check(wholeNumber(0, 4294967295LL, ""));
  app.add_option("--duration", raw.duration, "seconds to run, fractions allowed (default 10)")
      ->type_name("S")
      ->check(seconds());
  app.add_option("--interval", raw.interval,
                 "the cache's refresh period in whole seconds, as its\n"
                 "Config takes it (default 2)")
      ->type_name("S")
      ->check(wholeNumber(1, 86400, "seconds"));
  app.add_option("--prefer", options.preferredAdapter,
                 "the adapter asked for in the final table's\n"
                 "\"preferred\" column (default: the home's, else\n"
                 "PROT_WIFI-ADAPTER)")
      ->type_name("ADAPTER");
  app.add_option("--timeline", options.timelinePath,
                 "writes an SVG picture: one row per entity, reachable\n"
                 "and unreachable spans. Above 120 entities it draws\n"
                 "the 100 that changed most, under a band that counts\n"
                 "all of them")
      ->type_name("FILE")
      ->check(tools::nonEmptyPath());
  app.add_option("--log-level", raw.logLevel,
                 "lowest library log priority shown: debug (default),\ninfo, warn or error")
      ->type_name("LEVEL")
      ->check(logLevel());
  app.add_flag("--fast", options.fast,
               "plays in virtual time, as fast as the machine\n"
               "allows: the same home and seed print the same\n"
               "standard output on every run; the log lines on\n"
               "standard error carry the run's time, as a\n"
               "device's capture would");
  app.add_flag("--tracker", raw.tracker,
               "an entity tracker beside the listener: its changes\n"
               "of isEntityReachable in the last column (the\n"
               "default)");
  app.add_flag("--no-tracker", raw.noTracker, "no entity tracker");
  app.add_flag("-q,--quiet", options.quiet, "no library log lines at all");
}

// Turns the checked texts into the options' values.
void convert(const RawOptions& raw, Options& options) {
  int64_t whole = 0;
  double number = 0;
  if (parseWhole(raw.devices, whole)) {
    options.devices = whole;
  }
  if (parseNumber(raw.duration, number)) {
    options.durationMs = std::llround(number * 1000);
  }
  if (parseWhole(raw.interval, whole)) {
    options.intervalSeconds = whole;
  }
  if (parseNumber(raw.flapRate, number)) {
    options.flapRate = number;
  }
  if (parseWhole(raw.seed, whole)) {
    options.seed = static_cast<uint32_t>(whole);
  }
  if (!raw.logLevel.empty()) {
    options.logPriority = logLevels().at(raw.logLevel);
  }
  if (raw.tracker || raw.noTracker) {
    options.tracker = raw.tracker;
  }
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

// "--name=" with nothing after the sign, for an option of `app`: CLI11 would
// take the next argument as the value. Returns the refusal, or an empty text.
std::string emptyValue(const CLI::App& app, const std::vector<std::string>& arguments) {
  for (const std::string& argument : arguments) {
    const std::size_t sign = argument.find('=');
    if (argument.rfind("--", 0) != 0 || sign != argument.size() - 1) {
      continue;
    }
    const std::string name = argument.substr(0, sign);
    if (app.get_option_no_throw(name) != nullptr) {
      return name + " needs a value, got an empty text";
    }
  }
  return "";
}

}  // namespace

OptionsResult parseOptions(const std::vector<std::string>& arguments) {
  OptionsResult result;
  RawOptions raw;
  CLI::App app("", "reachability-sim");
  describe(app, result.options, raw);
  result.error = emptyValue(app, arguments);
  if (!result.error.empty()) {
    return result;
  }
  static_cast<tools::CommandLineResult&>(result) = tools::parseCommandLine(app, arguments);
  if (!result.ok || result.help) {
    return result;
  }
  convert(raw, result.options);
  result.error = raw.tracker && raw.noTracker ? "--tracker and --no-tracker cannot be combined"
                                              : checkCombination(result.options);
  result.ok = result.error.empty();
  return result;
}

std::string usageText() {
  Options options;
  RawOptions raw;
  CLI::App app("", "reachability-sim");
  describe(app, options, raw);
  return app.help();
}

}  // namespace veranda::reachabilityCache::sim
