// A scenario played through the real cache, checker and simulated driver, in
// virtual time and on the wall clock, and what the run prints and draws.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <iterator>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "AnswerDelays.h"
#include "GeneratedHome.h"
#include "LogRecorder.h"
#include "Report.h"
#include "ScenarioLoader.h"
#include "SimRun.h"
#include "SvgWriter.h"

namespace veranda::reachabilityCache::sim {
namespace {

// Two periodic cycles (at 1 s and 2 s) with events between them, out of order.
const char* const HOME = R"({
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

// What listeners heard about an entity: endpoint, adapter, state told, and
// what isEntityReachable answered inside the listener.
using Heard = std::tuple<std::string, std::string, bool, bool>;
using Answers = std::vector<std::pair<int64_t, bool>>;  // (ms, reachable) at each change

// The timeline as printed, read back per entity.
struct Printed {
  std::string text;
  std::map<std::string, std::vector<Heard>> heard;
  std::map<std::string, Answers> tracked;  // the tracker's column
};

struct Played {
  RunReport report;
  Printed printed;
  std::string table;  // the final table as printed
};

Played play(const Scenario& scenario, bool fast, bool tracker = true) {
  test::LogRecorder::instance().setMode(
      test::LogCapture::Mode::SILENCE);  // the run's log lines are not asserted
  std::ostringstream timeline;
  Played played;
  played.report = runScenario(scenario, {&timeline, 1, fast, tracker});
  played.printed.text = timeline.str();
  std::istringstream lines(played.printed.text);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    const std::vector<std::string> word{std::istream_iterator<std::string>(words), {}};
    const bool isState =
        word.size() >= 3 && (word.back() == "reachable" || word.back() == "unreachable");
    if (word.size() == 6 && (word[5] == "yes" || word[5] == "no")) {
      played.printed.heard[word[1]].emplace_back(word[2], word[3], word[4] == "reachable",
                                                 word[5] == "yes");
    } else if (word.size() == 3 && isState) {
      played.printed.tracked[word[1]].emplace_back(std::llround(std::stod(word[0]) * 1000),
                                                   word[2] == "reachable");
    }
  }
  std::ostringstream table;
  printFinalTable(played.report, table);
  played.table = table.str();
  return played;
}

Scenario testHome() {
  const LoadResult home = parseScenario(HOME, "test home");
  EXPECT_TRUE(home.ok) << home.error;
  return home.scenario;
}

// An entity's states as "a@0 r@1000 ...": absent, reachable, unreachable.
std::string states(const RunReport& report, std::size_t entity) {
  std::string seen;
  for (const AnswerChange& change : report.histories[entity].answers) {
    seen += std::string(seen.empty() ? "" : " ") + "aru"[static_cast<int>(change.answer)] + "@" +
            std::to_string(change.atMs);
  }
  return seen;
}

// The changes of isEntityReachable in the recorded states.
Answers answers(const EntityHistory& history) {
  Answers changes;
  bool reachable = false;
  for (const AnswerChange& change : history.answers) {
    if ((change.answer == tools::Answer::REACHABLE) != reachable) {
      reachable = !reachable;
      changes.emplace_back(change.atMs, reachable);
    }
  }
  return changes;
}

// The tracker's column and the states the run recorded from its own reading
// of the cache tell the same changes at the same times.
void expectTrackerAgrees(const Played& played) {
  const RunReport& report = played.report;
  for (std::size_t i = 0; i < report.entities.size(); ++i) {
    const auto tracked = played.printed.tracked.find(report.entities[i]);
    EXPECT_EQ(tracked == played.printed.tracked.end() ? Answers{} : tracked->second,
              answers(report.histories[i]))
        << report.entities[i];
  }
}

std::size_t lineOf(const std::string& text, const std::string& part) {
  const std::size_t at = text.find(part);
  return at == std::string::npos ? at
                                 : static_cast<std::size_t>(std::count(
                                       text.begin(), text.begin() + static_cast<long>(at), '\n'));
}

// In virtual time every moment is exact: the cycles at 1 s and 2 s answer at
// once (no latency), and each event lands at its millisecond.
TEST(SimRunTest, PlaysTheHomeInVirtualTimeAndTellsEveryChangeWhenItHappens) {
  const Played played = play(testHome(), /*fast=*/true);
  const RunReport& report = played.report;
  EXPECT_EQ(report.cycleTimesMs, (std::vector<int64_t>{1000, 2000}));
  std::map<std::string, std::vector<Heard>> heard = played.printed.heard;
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
  EXPECT_EQ(heard["porch"],
            (std::vector<Heard>{{"porch-local", "PROT_LOCALSKILLS-ADAPTER", true, true}}));

  // What isEntityReachable answered, to the millisecond: the second cycle
  // sweeps the removed porch and the pushed but never named garage, silently.
  EXPECT_EQ(states(report, 1), "a@0 r@1000 u@1400 r@2000");
  EXPECT_EQ(states(report, 3), "a@0");
  EXPECT_EQ(states(report, 4), "a@0 r@1000 a@2000");
  EXPECT_EQ(states(report, 5), "a@0 r@1200 a@2000");
  std::string table;
  for (const TableRow& row : report.table) {
    table += row.cached ? (row.reachable ? 'R' : 'U') : '-';
  }
  EXPECT_EQ(table, "RRR---");
  EXPECT_EQ(report.table[2].preferredEndpoint, "speaker-wifi");
  EXPECT_NE(played.table.find("\nplug     yes              3         4            1 s  plug-wifi "),
            std::string::npos)
      << played.table;
  expectTrackerAgrees(played);

  // Each act of the home comes before what it caused.
  const std::string& text = played.printed.text;
  const std::size_t offline = lineOf(text, "1.400  * plug / plug-wifi goes offline");
  EXPECT_EQ(lineOf(text, "1.400  plug     plug-wifi     PROT_WIFI-ADAPTER"), offline + 1) << text;
  const std::size_t push = lineOf(text, "1.200  * garage / garage-chip the host pushes");
  EXPECT_EQ(lineOf(text, "1.200  ~ garage: isEntityReachable now answers yes"), push + 2) << text;
  EXPECT_NE(lineOf(text, "2.000  ~ porch is no longer in the cache (listeners are not told)"),
            std::string::npos);
  EXPECT_NE(lineOf(text, "2.000  ~ garage is no longer in the cache"), std::string::npos);
  const std::string svg = timelineSvg(report);
  std::size_t rows = 0;
  for (auto at = svg.find("<title>"); at != std::string::npos; at = svg.find("<title>", at + 1)) {
    ++rows;
  }
  EXPECT_EQ(rows, 6u) << "one row per entity";
}

// On the wall clock the same home decides the same, only the times differ.
TEST(SimRunTest, PlaysTheHomeInRealTimeAsInVirtualTime) {
  const Played fast = play(testHome(), /*fast=*/true, /*tracker=*/false);
  const Played real = play(testHome(), /*fast=*/false, /*tracker=*/false);
  EXPECT_EQ(real.printed.heard, fast.printed.heard);
  EXPECT_TRUE(real.printed.tracked.empty());
  for (std::size_t i = 0; i < fast.report.entities.size(); ++i) {
    std::string fastStates;
    std::string realStates;
    for (const AnswerChange& change : fast.report.histories[i].answers) {
      fastStates += "aru"[static_cast<int>(change.answer)];
    }
    for (const AnswerChange& change : real.report.histories[i].answers) {
      realStates += "aru"[static_cast<int>(change.answer)];
    }
    EXPECT_EQ(realStates, fastStates) << fast.report.entities[i];
  }
  EXPECT_EQ(real.report.cycleTimesMs.size(), 2u);
  EXPECT_GE(real.report.cycleTimesMs[0], 1000);
}

// A flapping home with answers that take a while: every run with the seed
// prints and draws the same, to the byte.
TEST(SimRunTest, AFastRunIsTheSameOnEveryTry) {
  const Scenario home = generateHome({40, 30000, 1, 20, 5});
  const Played first = play(home, /*fast=*/true);
  const Played second = play(home, /*fast=*/true);
  EXPECT_GT(first.report.notifications, 300u);
  EXPECT_GT(first.printed.tracked.size(), 30u);
  EXPECT_EQ(first.printed.text, second.printed.text);
  EXPECT_EQ(first.table, second.table);
  EXPECT_EQ(timelineSvg(first.report), timelineSvg(second.report));
  expectTrackerAgrees(first);
  // Every notification is counted; the picture's marks are thinned to what
  // its width can show (a 2000th of the duration apart).
  std::size_t counted = 0;
  std::size_t marks = 0;
  for (const EntityHistory& history : first.report.histories) {
    counted += history.notifications;
    marks += history.notifiedAtMs.size();
    for (std::size_t k = 1; k < history.notifiedAtMs.size(); ++k) {
      ASSERT_GE(history.notifiedAtMs[k] - history.notifiedAtMs[k - 1], 15);
    }
  }
  EXPECT_EQ(counted, first.report.notifications);
  EXPECT_LT(marks, counted);
}

// Answers take their time from the scenario's range, except that none comes
// exactly when a later cycle starts, where the two would race.
TEST(SimRunTest, AnswerDelaysStayInTheirRangeAndMissTheCycles) {
  AnswerDelays delays(0, 3000, 1, 7);
  std::set<int64_t> seen;
  for (int i = 0; i < 30000; ++i) {
    const int64_t delay = delays.next();
    ASSERT_TRUE(delay >= 0 && delay <= 3001) << delay;
    ASSERT_TRUE(delay == 0 || delay % 1000 != 0) << delay;
    seen.insert(delay);
  }
  EXPECT_GT(seen.size(), 2900u);
  AnswerDelays onTheCycle(2000, 2000, 2, 7);
  EXPECT_EQ(onTheCycle.next(), 2001);
}

}  // namespace
}  // namespace veranda::reachabilityCache::sim
