// The simulator: its inputs (scenario files and the command line), and a
// scenario played through the real cache, checker and simulated driver.
#include <gtest/gtest.h>

#include <iterator>
#include <map>
#include <sstream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "LogRecorder.h"
#include "Options.h"
#include "ScenarioFromOptions.h"
#include "ScenarioLoader.h"
#include "SimRun.h"
#include "SvgWriter.h"

namespace veranda::reachabilityCache::sim {
namespace {

std::size_t occurrences(const std::string& text, const std::string& part) {
  std::size_t count = 0;
  for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
  return count;
}

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
      {"--devices 5 --scenario a.json",
       "--devices and --scenario cannot be combined: pick a generated or a scenario home"},
      {"--flap-rate 3", "--flap-rate applies only to a generated home (--devices N)"},
      {"--log-level loud", "--log-level: must be debug, info, warn or error, got 'loud'"},
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

// Options override the home they pick.
TEST(SimInputsTest, OptionsOverrideTheHome) {
  const OptionsResult parsed = parseOptions({"--devices=40", "--duration", "2.5", "--interval", "1",
                                             "--seed", "7", "--prefer", "X", "--flap-rate", "3"});
  ASSERT_TRUE(parsed.ok) << parsed.error;
  const Scenario generated = scenarioFromOptions(parsed.options).scenario;
  EXPECT_TRUE(generated.devices.size() == 40u && generated.durationMs == 2500 &&
              generated.intervalSeconds == 1 && generated.preferredAdapter == "X" &&
              generated.flaps.perMinute == 3 && generated.flaps.seed == 7);
}

// Two periodic cycles (at 1 s and 2 s) with events between them, out of order.
const char* const kHome = R"({
  "name": "test home", "duration": 2.6, "interval": 1, "latencyMs": [0, 0],
  "entities": ["lamp", "plug", "speaker", "tv", "porch", "garage"],
  "devices": [
    {"endpoint": "lamp-zb", "entity": "lamp", "adapter": "PROT_ZIGBEE-ADAPTER",
     "driverType": "connected", "capabilities": ["PowerController:powerState", "Scene"]},
    {"endpoint": "plug-wifi", "entity": "plug", "adapter": "PROT_WIFI-ADAPTER"},
    {"endpoint": "speaker-ble", "entity": "speaker", "adapter": "PROT_BLE-ADAPTER"},
    {"endpoint": "speaker-wifi", "entity": "speaker", "adapter": "PROT_WIFI-ADAPTER"},
    {"endpoint": "tv-ir", "entity": "tv", "adapter": "PROT_IR-ADAPTER"},
    {"endpoint": "porch-local", "entity": "porch", "adapter": "PROT_LOCALSKILLS-ADAPTER"},
    {"endpoint": "garage-chip", "entity": "garage", "adapter": "PROT_CHIP-ADAPTER",
     "present": false}
  ],
  "events": [
    {"at": 1.4, "action": "offline", "endpoint": "plug-wifi"},
    {"at": 1.2, "action": "push", "endpoint": "garage-chip"},
    {"at": 1.2, "action": "remove", "endpoint": "porch-local"},
    {"at": 1.7, "action": "online", "endpoint": "plug-wifi"}
  ]
})";

TEST(SimRunTest, ReadsTheHomeThenPlaysItThroughTheCacheAndReportsWhatItDecided) {
  test::LogRecorder::instance().setDiscard(true);  // the run's log lines are not asserted
  const LoadResult home = parseScenario(kHome, "test home");
  ASSERT_TRUE(home.ok) << home.error;
  const Scenario& scenario = home.scenario;
  const std::vector<std::pair<std::string, std::string>> lampKeys = {
      {"PowerController", "powerState"}, {"Scene", ""}};
  EXPECT_TRUE(scenario.devices[0].driverType == applianceDriver::ApplianceDriverType::CONNECTED &&
              scenario.devices[0].capabilities == lampKeys && !scenario.devices[6].present);
  ASSERT_EQ(scenario.events.size(), 4u);  // sorted by time; equal times keep file order
  EXPECT_TRUE(scenario.events[0].action == Action::kPush && scenario.events[0].atMs == 1200 &&
              scenario.events[1].action == Action::kRemove && scenario.events[2].atMs == 1400);

  std::ostringstream timeline;
  const RunReport report = runScenario(scenario, {&timeline});
  EXPECT_EQ(report.cycleTimesMs.size(), 2u);
  // What listeners heard, per entity: endpoint, adapter, state told, isEntityReachable inside.
  using Heard = std::tuple<std::string, std::string, bool, bool>;
  std::map<std::string, std::vector<Heard>> heard;
  for (const Notification& n : report.notifications) {
    heard[n.entityId].emplace_back(n.endpointId, n.adapterName, n.reachable, n.entityReachable);
  }
  // Unheard: tv (an unsupported adapter) and garage (pushed records are not announced).
  EXPECT_EQ(heard.count("tv") + heard.count("garage"), 0u);
  EXPECT_EQ(heard["lamp"], (std::vector<Heard>{{"lamp-zb", "PROT_ZIGBEE-ADAPTER", true, true}}));
  // Online through a connectivity event: listeners hear "reachable" at once,
  // but the entity counts as reachable only once the next cycle confirms it.
  const auto plug = [](bool told, bool answered) {
    return Heard{"plug-wifi", "PROT_WIFI-ADAPTER", told, answered};
  };
  EXPECT_EQ(heard["plug"], (std::vector<Heard>{plug(true, true), plug(false, false),
                                               plug(true, false), plug(true, true)}));
  ASSERT_EQ(heard["speaker"].size(), 1u) << "the second endpoint finds it reachable already";
  EXPECT_TRUE(std::get<2>(heard["speaker"][0]));
  EXPECT_EQ(heard["porch"],
            (std::vector<Heard>{{"porch-local", "PROT_LOCALSKILLS-ADAPTER", true, true}}));

  // As letters, tv's, porch's and garage's states, then the table (R, U, or not cached):
  // the second cycle sweeps the removed porch and the pushed but never named garage.
  const auto states = [&report](std::size_t entity) {
    std::string seen;
    for (const auto& change : report.states[entity]) seen += "aru"[static_cast<int>(change.state)];
    return seen;
  };
  std::string table;
  for (const TableRow& row : report.table) table += row.cached ? (row.reachable ? 'R' : 'U') : '-';
  EXPECT_EQ(states(3) + " " + states(4) + " " + states(5) + " " + table, "a ara ara RRR---");
  EXPECT_EQ(report.table[2].endpoints.size(), 2u);
  EXPECT_EQ(report.table[2].preferredEndpoint, "speaker-wifi");

  const std::string text = timeline.str();
  EXPECT_EQ(occurrences(text, "~ porch is no longer in the cache (listeners are not told)"), 1u);
  EXPECT_EQ(occurrences(text, "~ garage is no longer in the cache"), 1u);
  EXPECT_EQ(occurrences(text,
                        "garage / garage-chip the host pushes its record with "
                        "updateEndpoints: isEntityReachable now answers yes"),
            1u);
  EXPECT_EQ(occurrences(timelineSvg(report), "<title>"), 6u) << "one row per entity";
}

}  // namespace
}  // namespace veranda::reachabilityCache::sim
