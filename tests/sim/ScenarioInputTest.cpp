// The simulator's inputs: scenario files and the command line.
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <utility>
#include <vector>

#include "Options.h"
#include "ScenarioLoader.h"
#include "Setup.h"
#include "reachabilityCache/ApplianceDriverReachabilityChecker.h"

namespace veranda::reachabilityCache::sim {
namespace {

// A valid home around `devices` and `events` (JSON array texts).
std::string home(const std::string& devices, const std::string& events = "[]") {
  return R"({"entities": ["lamp", "plug"], "devices": )" + devices + R"(, "events": )" + events +
         "}";
}

const std::string kLamp = R"([{"endpoint": "lamp-zb", "entity": "lamp",
                               "adapter": "PROT_ZIGBEE-ADAPTER"}])";

TEST(ScenarioLoaderTest, RejectsBadScenariosWithOneLinePointingAtTheProblem) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"{\n  \"entities\": [\"lamp\",]\n}",
       "t.json:2:23: malformed JSON: syntax error while parsing value - unexpected ']'; "
       "expected '[', '{', or a literal"},
      {"",
       "t.json:1:1: malformed JSON: syntax error while parsing value - unexpected end of "
       "input; expected '[', '{', or a literal"},
      {home(R"([{"endpoint": "x", "entity": "kitchen", "adapter": "PROT_WIFI-ADAPTER"}])"),
       "t.json: devices[0].entity: \"kitchen\" is not one of the scenario's \"entities\""},
      {home(kLamp, R"([{"at": 1, "action": "offline", "endpoint": "plug-wifi"}])"),
       "t.json: events[0].endpoint: \"plug-wifi\" is not the endpoint of any device"},
      {home(kLamp, R"([{"at": -2, "action": "offline", "endpoint": "lamp-zb"}])"),
       "t.json: events[0].at: must be 0 or more seconds, found -2"},
      {home(kLamp, R"([{"at": 1, "action": "explode", "endpoint": "lamp-zb"}])"),
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

TEST(ScenarioLoaderTest, ReadsDevicesWithDefaultsAndSortsEventsByTime) {
  const LoadResult result = parseScenario(
      home(R"([{"endpoint": "lamp-zb", "entity": "lamp", "adapter": "PROT_ZIGBEE-ADAPTER",
                "driverType": "connected", "online": false,
                "capabilities": ["PowerController:powerState", "Scene"]},
               {"endpoint": "plug-wifi", "entity": "plug", "adapter": "PROT_WIFI-ADAPTER"}])",
           R"([{"at": 2.5, "action": "online", "endpoint": "lamp-zb"},
               {"at": 0.75, "action": "remove", "endpoint": "plug-wifi"},
               {"at": 2.5, "action": "push", "endpoint": "plug-wifi"}])"),
      "t.json");
  ASSERT_TRUE(result.ok) << result.error;
  const Scenario& scenario = result.scenario;
  EXPECT_EQ(scenario.durationMs, 10000);
  EXPECT_EQ(scenario.intervalSeconds, 2);
  EXPECT_EQ(scenario.effectiveCacheSize(), 100u);
  const Device& lamp = scenario.devices[0];
  EXPECT_EQ(lamp.driverType, applianceDriver::ApplianceDriverType::CONNECTED);
  EXPECT_FALSE(lamp.online);
  EXPECT_TRUE(lamp.present);
  EXPECT_EQ(lamp.capabilities, (std::vector<std::pair<std::string, std::string>>{
                                   {"PowerController", "powerState"}, {"Scene", ""}}));
  EXPECT_EQ(scenario.devices[1].driverType, applianceDriver::ApplianceDriverType::NATIVE);
  ASSERT_EQ(scenario.events.size(), 3u);
  EXPECT_EQ(scenario.events[0].atMs, 750);
  EXPECT_EQ(scenario.events[1].action, Action::kOnline);  // equal times keep file order
  EXPECT_EQ(scenario.events[2].action, Action::kPush);
}

TEST(ScenarioLoaderTest, ShippedHomesLoadAndTheDefaultOneShowsEverySituation) {
  const LoadResult example = loadScenarioFile(REACHABILITY_SIM_SCENARIOS_DIR "/example.json");
  EXPECT_TRUE(example.ok) << example.error;
  const LoadResult file = loadScenarioFile(REACHABILITY_SIM_SCENARIOS_DIR "/default-home.json");
  ASSERT_TRUE(file.ok) << file.error;
  const LoadResult embedded = loadDefaultHome();
  ASSERT_TRUE(embedded.ok) << embedded.error;
  EXPECT_EQ(embedded.scenario.devices.size(), file.scenario.devices.size());

  const Scenario& scenario = embedded.scenario;
  std::set<std::string> adapters;
  std::set<std::string> entitiesWithDevices;
  std::size_t twoAdapterEntities = 0;
  for (const Device& device : scenario.devices) {
    adapters.insert(device.adapterName);
    twoAdapterEntities += entitiesWithDevices.insert(device.entityId).second ? 0 : 1;
  }
  for (const std::string& supported : ApplianceDriverReachabilityChecker::SUPPORTED_ADAPTERS) {
    EXPECT_EQ(adapters.count(supported), 1u) << supported;
  }
  EXPECT_EQ(adapters.size(), ApplianceDriverReachabilityChecker::SUPPORTED_ADAPTERS.size() + 1)
      << "one unsupported adapter";
  EXPECT_GE(scenario.entities.size(), 12u);
  EXPECT_GE(twoAdapterEntities, 1u);
  std::set<Action> actions;
  for (const Event& event : scenario.events) {
    actions.insert(event.action);
  }
  EXPECT_EQ(actions, (std::set<Action>{Action::kOffline, Action::kOnline, Action::kRemove,
                                       Action::kAdd, Action::kPush}));
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
  const LoadResult generated = scenarioFromOptions(parsed.options);
  ASSERT_TRUE(generated.ok);
  EXPECT_EQ(generated.scenario.devices.size(), 40u);
  EXPECT_EQ(generated.scenario.durationMs, 2500);
  EXPECT_EQ(generated.scenario.intervalSeconds, 1);
  EXPECT_EQ(generated.scenario.preferredAdapter, "X");
  const std::vector<Event> again = scenarioFromOptions(parsed.options).scenario.events;
  ASSERT_EQ(again.size(), generated.scenario.events.size());
  for (std::size_t i = 0; i < again.size(); ++i) {
    EXPECT_EQ(again[i].atMs, generated.scenario.events[i].atMs) << "the same seed, the same home";
    EXPECT_EQ(again[i].endpointId, generated.scenario.events[i].endpointId);
  }
}

}  // namespace
}  // namespace veranda::reachabilityCache::sim
