// The simulator: its inputs (scenario files and the command line), a
// scenario played through the real cache, checker and simulated driver, and
// the timeline drawing.
#include <gtest/gtest.h>

#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "LogRecorder.h"
#include "Options.h"
#include "ScenarioLoader.h"
#include "Setup.h"
#include "SimRun.h"
#include "SvgWriter.h"

namespace veranda::reachabilityCache::sim {
namespace {

// A valid home around `devices` and `events` (JSON array texts).
std::string home(const std::string& devices, const std::string& events = "[]") {
  return R"({"entities": ["lamp", "plug"], "devices": )" + devices + R"(, "events": )" + events +
         "}";
}

// The lamp's home with one event of `fields`.
std::string lampEvent(const std::string& fields) {
  return home(R"([{"endpoint": "lamp-zb", "entity": "lamp", "adapter": "PROT_ZIGBEE-ADAPTER"}])",
              "[{" + fields + "}]");
}

TEST(ScenarioLoaderTest, RejectsBadScenariosWithOneLinePointingAtTheProblem) {
  // The base home is valid, its unset fields taking their defaults.
  const LoadResult base = parseScenario(
      home(R"([{"endpoint": "a", "entity": "lamp", "adapter": "X", "online": false}])"), "t.json");
  ASSERT_TRUE(base.ok) << base.error;
  EXPECT_TRUE(base.scenario.durationMs == 10000 && base.scenario.intervalSeconds == 2);
  EXPECT_EQ(base.scenario.effectiveCacheSize(), 100u);
  const Device& device = base.scenario.devices[0];
  EXPECT_TRUE(!device.online && device.present &&
              device.driverType == applianceDriver::ApplianceDriverType::NATIVE);

  const std::vector<std::pair<std::string, std::string>> cases = {
      {"{\n  \"entities\": [\"lamp\",]\n}",
       "t.json:2:23: malformed JSON: syntax error while parsing value - unexpected ']'; "
       "expected '[', '{', or a literal"},
      {home(R"([{"endpoint": "x", "entity": "kitchen", "adapter": "PROT_WIFI-ADAPTER"}])"),
       "t.json: devices[0].entity: \"kitchen\" is not one of the scenario's \"entities\""},
      {lampEvent(R"("at": 1, "action": "offline", "endpoint": "plug-wifi")"),
       "t.json: events[0].endpoint: \"plug-wifi\" is not the endpoint of any device"},
      {lampEvent(R"("at": -2, "action": "offline", "endpoint": "lamp-zb")"),
       "t.json: events[0].at: must be 0 or more seconds, found -2"},
      {lampEvent(R"("at": 1, "action": "explode", "endpoint": "lamp-zb")"),
       "t.json: events[0].action: unknown action \"explode\" (offline, online, remove, add or "
       "push)"},
      {R"({"duration": -5, "entities": ["lamp"], "devices": [] })",
       "t.json: duration: must be more than 0 seconds, found -5"},
      {R"({"duration": "ten", "entities": ["lamp"], "devices": [] })",
       "t.json: duration: expected a number of seconds, found \"ten\""},
      {R"({"interval": 1.5, "entities": ["lamp"], "devices": [] })",
       "t.json: interval: expected a whole number from 1 to 86400, found 1.5"},
      {R"({"entities": ["lamp"], "devcies": [] })", "t.json: top level: unknown key \"devcies\""},
      {R"({"entities": ["lamp"]})", "t.json: missing \"devices\""},
      {home(R"([{"endpoint": "a", "entity": "lamp", "adapter": "X"},
                {"endpoint": "a", "entity": "plug", "adapter": "X"}])"),
       "t.json: devices[1].endpoint: endpoint \"a\" is used by two devices"},
  };
  for (const auto& [text, error] : cases) {
    const LoadResult result = parseScenario(text, "t.json");
    EXPECT_FALSE(result.ok) << text;
    EXPECT_EQ(result.error, error) << text;
  }
  const LoadResult missing = loadScenarioFile("/nonexistent/home.json");
  EXPECT_FALSE(missing.ok);
  EXPECT_EQ(missing.error,
            "cannot open scenario file /nonexistent/home.json: No such file or directory");
}

// The embedded default home is the shipped file, and plays every action.
TEST(ScenarioLoaderTest, ShippedHomesLoad) {
  const LoadResult example = loadScenarioFile(REACHABILITY_SIM_SCENARIOS_DIR "/example.json");
  const LoadResult file = loadScenarioFile(REACHABILITY_SIM_SCENARIOS_DIR "/default-home.json");
  const LoadResult embedded = loadDefaultHome();
  ASSERT_TRUE(example.ok && file.ok && embedded.ok) << example.error << file.error;
  EXPECT_EQ(embedded.scenario.devices.size(), file.scenario.devices.size());
  std::set<Action> actions;
  for (const Event& event : embedded.scenario.events) {
    actions.insert(event.action);
  }
  EXPECT_EQ(actions.size(), 5u);
}

TEST(OptionsTest, RejectsBadCommandLinesWithOneLine) {
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
      {{"--colour"}, "unknown option '--colour'"},
      {{"home.json"}, "unexpected argument 'home.json'"},
      {{"--duration", "-3"}, "--duration must be more than 0 and at most 86400 seconds, got -3"},
      {{"--duration=soon"}, "--duration expects a number of seconds, got 'soon'"},
      {{"--interval", "0.5"}, "--interval must be a whole number of seconds, got '0.5'"},
      {{"--devices", "0"}, "--devices must be from 1 to 100000, got 0"},
      {{"--seed"}, "--seed needs a value"},
      {{"--devices", "5", "--scenario", "a.json"},
       "--devices and --scenario cannot be combined: pick a generated or a scenario home"},
      {{"--flap-rate", "3"}, "--flap-rate applies only to a generated home (--devices N)"},
      {{"--log-level", "loud"}, "--log-level must be debug, info, warn or error, got 'loud'"},
  };
  for (const auto& [arguments, error] : cases) {
    const OptionsResult result = parseOptions(arguments);
    EXPECT_FALSE(result.ok) << arguments[0];
    EXPECT_EQ(result.error, error);
  }
}

TEST(OptionsTest, OverridesApplyOnTopOfTheChosenHome) {
  const OptionsResult parsed = parseOptions(
      {"--devices=40", "--duration", "2.5", "--interval", "1", "--seed", "7", "--prefer", "X"});
  ASSERT_TRUE(parsed.ok) << parsed.error;
  const Scenario generated = scenarioFromOptions(parsed.options).scenario;
  EXPECT_EQ(generated.devices.size(), 40u);
  EXPECT_TRUE(generated.durationMs == 2500 && generated.intervalSeconds == 1);
  EXPECT_EQ(generated.preferredAdapter, "X");
  const std::vector<Event> again = scenarioFromOptions(parsed.options).scenario.events;
  ASSERT_EQ(again.size(), generated.events.size());
  for (std::size_t i = 0; i < again.size(); ++i) {  // the same seed, the same home
    EXPECT_TRUE(again[i].atMs == generated.events[i].atMs &&
                again[i].endpointId == generated.events[i].endpointId);
  }
}

// Two periodic cycles (at 1 s and 2 s) with events between them, listed out
// of order.
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

// (endpoint, adapter, notified state, isEntityReachable inside the listener)
using Heard = std::tuple<std::string, std::string, bool, bool>;

std::vector<Heard> heardAbout(const RunReport& report, const std::string& entity) {
  std::vector<Heard> heard;
  for (const Notification& n : report.notifications) {
    if (n.entityId == entity) {
      heard.emplace_back(n.endpointId, n.adapterName, n.reachable, n.entityReachable);
    }
  }
  return heard;
}

std::size_t occurrences(const std::string& text, const std::string& fragment) {
  std::size_t count = 0;
  for (std::size_t at = text.find(fragment); at != std::string::npos;
       at = text.find(fragment, at + 1)) {
    ++count;
  }
  return count;
}

TEST(SimRunTest, ReadsTheHomeThenPlaysItThroughTheCacheAndReportsWhatItDecided) {
  testing::LogRecorder::instance().setDiscard(true);  // the run's log lines are not asserted
  const LoadResult home = parseScenario(kHome, "test home");
  ASSERT_TRUE(home.ok) << home.error;
  const Scenario& scenario = home.scenario;
  EXPECT_EQ(scenario.devices[0].driverType, applianceDriver::ApplianceDriverType::CONNECTED);
  EXPECT_EQ(scenario.devices[0].capabilities,
            (std::vector<std::pair<std::string, std::string>>{{"PowerController", "powerState"},
                                                              {"Scene", ""}}));
  EXPECT_FALSE(scenario.devices[6].present);
  ASSERT_EQ(scenario.events.size(), 4u);  // sorted by time; equal times keep file order
  EXPECT_TRUE(scenario.events[0].action == Action::kPush && scenario.events[0].atMs == 1200 &&
              scenario.events[1].action == Action::kRemove && scenario.events[2].atMs == 1400);

  std::ostringstream timeline;
  RunSettings settings;
  settings.timeline = &timeline;
  const RunReport report = runScenario(scenario, settings);
  EXPECT_EQ(report.cycleTimesMs.size(), 2u);
  const std::string wifi = "PROT_WIFI-ADAPTER";
  EXPECT_EQ(heardAbout(report, "lamp"),
            (std::vector<Heard>{{"lamp-zb", "PROT_ZIGBEE-ADAPTER", true, true}}));
  // Online through a connectivity event: listeners hear "reachable" at once,
  // but the entity counts as reachable only once the next cycle confirms it.
  EXPECT_EQ(heardAbout(report, "plug"), (std::vector<Heard>{{"plug-wifi", wifi, true, true},
                                                            {"plug-wifi", wifi, false, false},
                                                            {"plug-wifi", wifi, true, false},
                                                            {"plug-wifi", wifi, true, true}}));
  const std::vector<Heard> speaker = heardAbout(report, "speaker");
  ASSERT_EQ(speaker.size(), 1u) << "the second endpoint finds the entity reachable already";
  EXPECT_TRUE(std::get<2>(speaker[0]));
  EXPECT_EQ(heardAbout(report, "porch"),
            (std::vector<Heard>{{"porch-local", "PROT_LOCALSKILLS-ADAPTER", true, true}}));
  EXPECT_TRUE(heardAbout(report, "tv").empty()) << "unsupported adapter";
  EXPECT_TRUE(heardAbout(report, "garage").empty()) << "pushed records are not announced";

  // Removed and pushed-but-never-named entities are swept by the second cycle.
  const auto statesOf = [&report](std::size_t entity) {
    std::vector<EntityState> states;
    for (const StateChange& change : report.states[entity]) {
      states.push_back(change.state);
    }
    return states;
  };
  const std::vector<EntityState> cameAndWent = {EntityState::kAbsent, EntityState::kReachable,
                                                EntityState::kAbsent};
  EXPECT_EQ(statesOf(4), cameAndWent);
  EXPECT_EQ(statesOf(5), cameAndWent);
  EXPECT_EQ(statesOf(3), std::vector<EntityState>{EntityState::kAbsent});
  // The final table: lamp, plug and speaker cached and reachable, the rest gone.
  ASSERT_EQ(report.table.size(), 6u);
  for (std::size_t row = 0; row < report.table.size(); ++row) {
    const TableRow& entity = report.table[row];
    EXPECT_TRUE(row < 3 ? entity.cached && entity.reachable : !entity.cached) << entity.entityId;
  }
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

TEST(SvgWriterTest, LargeHomesGetACountingBandAndTheMostChangingRows) {
  RunReport report;
  report.durationMs = 5000;
  for (int i = 0; i < 150; ++i) {
    report.entities.push_back("entity-" + std::to_string(i));
    report.states.push_back({{0, EntityState::kAbsent}, {1000, EntityState::kReachable}});
    if (i % 10 == 0) {
      report.states.back().push_back({2000, EntityState::kUnreachable});
    }
  }
  const std::string svg = timelineSvg(report);
  EXPECT_EQ(occurrences(svg, "<title>"), kSelectedSvgRows);
  EXPECT_EQ(occurrences(svg, "<title>entity-10</title>"), 1u) << "a changing entity is drawn";
  EXPECT_NE(svg.find("the band counts all 150"), std::string::npos);
}

}  // namespace
}  // namespace veranda::reachabilityCache::sim
