// A scenario played through the real cache, checker and simulated driver.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "LogRecorder.h"
#include "ScenarioLoader.h"
#include "SimRun.h"
#include "SvgWriter.h"

namespace veranda::reachabilityCache::sim {
namespace {

// Two periodic cycles (at 1 s and 2 s) with events between them.
const char* const kHome = R"({
  "name": "test home", "duration": 2.6, "interval": 1, "latencyMs": [0, 0],
  "entities": ["lamp", "plug", "speaker", "tv", "porch", "garage"],
  "devices": [
    {"endpoint": "lamp-zb", "entity": "lamp", "adapter": "PROT_ZIGBEE-ADAPTER"},
    {"endpoint": "plug-wifi", "entity": "plug", "adapter": "PROT_WIFI-ADAPTER"},
    {"endpoint": "speaker-ble", "entity": "speaker", "adapter": "PROT_BLE-ADAPTER"},
    {"endpoint": "speaker-wifi", "entity": "speaker", "adapter": "PROT_WIFI-ADAPTER"},
    {"endpoint": "tv-ir", "entity": "tv", "adapter": "PROT_IR-ADAPTER"},
    {"endpoint": "porch-local", "entity": "porch", "adapter": "PROT_LOCALSKILLS-ADAPTER"},
    {"endpoint": "garage-chip", "entity": "garage", "adapter": "PROT_CHIP-ADAPTER",
     "present": false}
  ],
  "events": [
    {"at": 1.2, "action": "push", "endpoint": "garage-chip"},
    {"at": 1.3, "action": "remove", "endpoint": "porch-local"},
    {"at": 1.4, "action": "offline", "endpoint": "plug-wifi"},
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

std::vector<EntityState> statesOf(const RunReport& report, std::size_t entity) {
  std::vector<EntityState> states;
  for (const StateChange& change : report.states[entity]) {
    states.push_back(change.state);
  }
  return states;
}

std::size_t occurrences(const std::string& text, const std::string& fragment) {
  std::size_t count = 0;
  for (std::size_t at = text.find(fragment); at != std::string::npos;
       at = text.find(fragment, at + 1)) {
    ++count;
  }
  return count;
}

TEST(SimRunTest, PlaysTheHomeThroughTheCacheAndReportsWhatItDecided) {
  testing::LogRecorder::instance().setDiscard(true);  // the run's log lines are not asserted
  const LoadResult home = parseScenario(kHome, "test home");
  ASSERT_TRUE(home.ok) << home.error;
  std::ostringstream timeline;
  RunSettings settings;
  settings.timeline = &timeline;
  const RunReport report = runScenario(home.scenario, settings);

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
  const std::vector<EntityState> cameAndWent = {EntityState::kAbsent, EntityState::kReachable,
                                                EntityState::kAbsent};
  EXPECT_EQ(statesOf(report, 4), cameAndWent);
  EXPECT_EQ(statesOf(report, 5), cameAndWent);
  EXPECT_EQ(statesOf(report, 3), std::vector<EntityState>{EntityState::kAbsent});

  ASSERT_EQ(report.table.size(), 6u);
  EXPECT_TRUE(report.table[0].reachable);
  EXPECT_TRUE(report.table[1].reachable);
  const TableRow& speakerRow = report.table[2];
  EXPECT_TRUE(speakerRow.reachable);
  EXPECT_EQ(speakerRow.endpoints.size(), 2u);
  EXPECT_EQ(speakerRow.preferredEndpoint, "speaker-wifi");
  for (std::size_t gone : {3, 4, 5}) {
    EXPECT_FALSE(report.table[gone].cached) << report.table[gone].entityId;
  }

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
  EXPECT_NE(svg.find("time since the cache was created (s)"), std::string::npos);
}

}  // namespace
}  // namespace veranda::reachabilityCache::sim
