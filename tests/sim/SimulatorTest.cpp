// The simulator's inputs: scenario files and the command line.
#include <gtest/gtest.h>

#include <iterator>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "Options.h"
#include "Report.h"
#include "ScenarioFromOptions.h"
#include "ScenarioLoader.h"

namespace veranda::reachabilityCache::sim {
namespace {

// Scenario texts (starting with "{" or "[") and command lines (words) are refused
// with one line that points at the problem.
TEST(SimInputsTest, BadScenariosAndCommandLinesAreRefusedWithOneLine) {
  const std::string lamp =
      R"({"entities": ["lamp"], "devices": [{"endpoint": "lamp-zb", "entity": "lamp", "adapter": "Z"})";
  const LoadResult base = parseScenario(lamp + "]}", "t");  // unset fields take their defaults
  EXPECT_TRUE(base.ok && base.scenario.durationMs == 10000 && base.scenario.intervalSeconds == 2 &&
              base.scenario.effectiveCacheSize() == 100);
  // Errors quote a short, printable excerpt of the input, never all of it.
  const std::string deep = std::string(70000, '[') + std::string(70000, ']');
  const std::string longKey = std::string(100000, 'k');
  const std::string longText = std::string(100000, 'a');
  const std::pair<std::string, std::string> cases[] = {
      {deep, "t: top level: expected an object, found " + std::string(37, '[') + "..."},
      {lamp + "], \"" + longKey + "\": 1}",
       "t: top level: unknown key \"" + std::string(36, 'k') + "..."},
      {"{\"name\": \"" + longText + "\n\"}",
       "t:2:0: malformed JSON: syntax error while parsing value - invalid string: control "
       "character U+000A (LF) must be escaped to \\u000A or \\n; last read: '..." +
           std::string(28, 'a') + "<U+000A>'"},
      {R"({"entities": ["\u001b[2J", "\u001b[2J"], "devices": []})",
       R"(t: entities[1]: entity "\u001b[2J" is listed twice)"},
      {"{\n  \"entities\": [\"lamp\",]\n}",
       "t:2:23: malformed JSON: syntax error while parsing value - unexpected ']'; "
       "expected '[', '{', or a literal"},
      {lamp + R"(, {"endpoint": "x", "entity": "kitchen", "adapter": "W"}]})",
       "t: devices[1].entity: \"kitchen\" is not one of the scenario's \"entities\""},
      {lamp + R"(, {"endpoint": "lamp-zb", "entity": "lamp", "adapter": "X"}]})",
       "t: devices[1].endpoint: endpoint \"lamp-zb\" is used by two devices"},
      {lamp + R"(], "events": [{"at": 1, "action": "offline", "endpoint": "plug-wifi"}]})",
       "t: events[0].endpoint: \"plug-wifi\" is not the endpoint of any device"},
      {lamp + R"(], "events": [{"at": -2, "action": "offline", "endpoint": "lamp-zb"}]})",
       "t: events[0].at: must be 0 or more seconds, found -2"},
      {lamp + R"(], "events": [{"at": 1, "action": "explode", "endpoint": "lamp-zb"}]})",
       "t: events[0].action: unknown action \"explode\" (offline, online, remove, add or "
       "push)"},
      {lamp + R"(], "duration": -5})", "t: duration: must be more than 0 seconds, found -5"},
      {lamp + R"(], "duration": 0.0004})",
       "t: duration: must be at least 0.001 seconds (runs are timed in milliseconds), found "
       "0.0004"},
      {lamp + R"(], "duration": "ten"})",
       "t: duration: expected a number of seconds, found \"ten\""},
      {lamp + R"(], "interval": 1.5})",
       "t: interval: expected a whole number from 1 to 86400, found 1.5"},
      {lamp + R"(], "interval": 0})",
       "t: interval: expected a whole number from 1 to 86400, found 0"},
      {lamp + R"(], "devcies": []})", "t: top level: unknown key \"devcies\""},
      {lamp + R"(], "entities": ["plug"]})", "t: entities: duplicate key"},
      {lamp + R"(, {"endpoint": "x", "entity": "lamp", "adapter": "W", "adapter": "Z"}]})",
       "t: devices[1].adapter: duplicate key"},
      {R"({"a b": [{}, {"x": {"c": 1, "c": 2}}]})", R"(t: ["a b"][1].x.c: duplicate key)"},
      {R"({"entities": ["lamp"]})", "t: missing \"devices\""},
      {"--colour", "unknown option '--colour'"},
      {"home.json", "unexpected argument 'home.json'"},
      {"--duration -3", "--duration: must be more than 0 and at most 86400 seconds, got -3"},
      {"--duration=soon", "--duration: expects a number of seconds, got 'soon'"},
      {"--interval 0.5", "--interval: must be a whole number of seconds, got '0.5'"},
      {"--devices 0", "--devices: must be from 1 to 100000, got 0"},
      {"--duration 0.0004",  // rounds to no millisecond at all
       "--duration: must be at least 0.001 seconds (the simulator plays whole milliseconds), "
       "got 0.0004"},
      {"--seed", "--seed needs a value"},
      // An empty value is not taken from the next argument.
      {"--timeline= --fast", "--timeline needs a value, got an empty text"},
      {"--seed= 5", "--seed needs a value, got an empty text"},
      // Numbers are plain decimals.
      {"--duration 0x10", "--duration: expects a number of seconds, got '0x10'"},
      {"--duration 1e1", "--duration: expects a number of seconds, got '1e1'"},
      {"--duration 2.5.1", "--duration: expects a number of seconds, got '2.5.1'"},
      {"--interval 0x3c", "--interval: expects a number, got '0x3c'"},
      {"--devices +5", "--devices: expects a number, got '+5'"},
      {"--seed 1-2", "--seed: expects a number, got '1-2'"},
      {"--devices 5 --scenario a.json",
       "--devices and --scenario cannot be combined: pick a generated or a scenario home"},
      {"--flap-rate 3", "--flap-rate applies only to a generated home (--devices N)"},
      {"--log-level loud", "--log-level: must be debug, info, warn or error, got 'loud'"},
      {"--tracker --no-tracker", "--tracker and --no-tracker cannot be combined"},
  };
  for (const auto& [input, error] : cases) {
    std::istringstream words(input);
    const std::vector<std::string> arguments{std::istream_iterator<std::string>(words), {}};
    const std::string refusal = input[0] == '{' || input[0] == '[' ? parseScenario(input, "t").error
                                                                   : parseOptions(arguments).error;
    EXPECT_EQ(refusal, error) << input.substr(0, 80);
  }
  EXPECT_EQ(parseOptions({"--timeline", ""}).error,
            "--timeline: needs a file path, got an empty text");
  EXPECT_EQ(loadScenarioFile("/nonexistent/home.json").error,
            "cannot open scenario file /nonexistent/home.json: No such file or directory");
}

// Options override the home they pick, and the summary says what a generated
// home plays: flaps made up as it goes, no listed events.
TEST(SimInputsTest, OptionsOverrideTheHome) {
  const OptionsResult parsed =
      parseOptions({"--devices=40", "--duration", "2.5", "--interval", "1", "--seed", "7",
                    "--prefer", "X", "--flap-rate", "3", "--fast", "--tracker"});
  ASSERT_TRUE(parsed.ok) << parsed.error;
  EXPECT_TRUE(parsed.options.fast && parsed.options.tracker == true);
  const Scenario generated = scenarioFromOptions(parsed.options).scenario;
  EXPECT_TRUE(generated.devices.size() == 40u && generated.durationMs == 2500 &&
              generated.intervalSeconds == 1 && generated.preferredAdapter == "X" &&
              generated.flaps.perMinute == 3 && generated.flaps.seed == 7);
  std::ostringstream summary;
  printHomeSummary(generated, summary);
  EXPECT_NE(summary.str().find(" 40 devices, drops generated at 3 per device per minute; runs "),
            std::string::npos)
      << summary.str();
}

}  // namespace
}  // namespace veranda::reachabilityCache::sim
