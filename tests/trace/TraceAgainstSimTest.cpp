// reachability-trace against the simulator, which knows the truth: what its
// listener heard, per entity and in order.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <map>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "CaptureFiles.h"
#include "CaptureLine.h"
#include "TraceOutput.h"

namespace veranda::reachabilityCache::trace::testing {
namespace {

// A few seconds of a flapping generated home, in virtual time.
const char* const HOME = "--devices 30 --duration 4 --interval 1 --flap-rate 30 --fast";

SimOutput runSimulator(int seed) {
  return testing::runSimulator(std::string(HOME) + " --seed " + std::to_string(seed),
                               "sim-" + std::to_string(seed));
}

using Told = std::vector<std::pair<std::string, bool>>;  // (endpoint, reachable) in order

// The notifications in the simulator's timeline: "time entity endpoint
// adapter reachable|unreachable yes|no".
std::map<std::string, Told> heardByListener(const std::string& timeline) {
  std::map<std::string, Told> heard;
  std::istringstream lines(timeline);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::vector<std::string> word{std::istream_iterator<std::string>(words), {}};
    if (word.size() == 6 && (word[4] == "reachable" || word[4] == "unreachable") &&
        (word[5] == "yes" || word[5] == "no")) {
      heard[word[1]].emplace_back(word[2], word[4] == "reachable");
    }
  }
  return heard;
}

// The host log as a device's threadtime capture: the header on every line of
// a message, other processes' lines between messages (one with a tag that
// starts like the library's), and, for `infoOnly`, no debug messages.
std::string asThreadtime(const std::string& hostLog, bool infoOnly) {
  std::string capture;
  std::string header;
  bool dropping = false;
  std::istringstream lines(hostLog);
  for (std::string line; std::getline(lines, line);) {
    const std::optional<CaptureLine> parsed = parseCaptureLine(line);
    if (!parsed) {  // a following line of the message
      capture += dropping ? "" : header + line + "\n";
      continue;
    }
    const ClockReading& clock = *parsed->clock;
    char time[48];
    std::snprintf(time, sizeof(time), "%02d-%02d %02lld:%02lld:%02lld.000", clock.month, clock.day,
                  static_cast<long long>(clock.microsOfDay / 3600000000),
                  static_cast<long long>(clock.microsOfDay / 60000000 % 60),
                  static_cast<long long>(clock.microsOfDay / 1000000 % 60));
    capture += std::string(time) + "  1000  1000 I ReachabilityCacheService: bound\n" + time +
               "   812   830 D WifiStateMachine: rssi=-61\n";
    dropping = infoOnly && parsed->priority == 'D';
    header = std::string(time) + " " + std::to_string(*parsed->pid) + " " +
             std::to_string(*parsed->tid) + " " + parsed->priority + " " +
             std::string(parsed->tag) + ": ";
    capture += dropping ? "" : header + std::string(parsed->text) + "\n";
  }
  return capture;
}

std::map<std::string, Told> toldInTrace(const CacheRecord& cache) {
  std::map<std::string, Told> told;
  for (const EntityRecord& entity : cache.entities) {
    for (const ChangeRecord& change : entity.changes) {
      told[entity.id].emplace_back(change.endpointId, change.reachable);
    }
  }
  return told;
}

bool isSubsequence(const Told& part, const Told& whole) {
  std::size_t at = 0;
  for (const auto& item : whole) {
    at += at < part.size() && part[at] == item ? 1 : 0;
  }
  return at == part.size();
}

std::size_t total(const std::map<std::string, Told>& told) {
  std::size_t count = 0;
  for (const auto& [entity, changes] : told) {
    count += changes.size();
  }
  return count;
}

TEST(TraceAgainstSimTest, TellsWhatTheListenerHeard) {
  for (int seed = 1; seed <= 3; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    const SimOutput sim = runSimulator(seed);
    const std::map<std::string, Told> heard = heardByListener(sim.timeline);
    ASSERT_GT(total(heard), 30u) << "the home flaps";

    // With debug lines: every notification, per entity and in order.
    const CaptureTrace full = traceText(asThreadtime(sim.log, false));
    ASSERT_TRUE(full.ok) << full.error;
    ASSERT_EQ(full.trace.caches.size(), 1u);
    const CacheRecord& cache = full.trace.caches[0];
    EXPECT_EQ(toldInTrace(cache), heard);
    EXPECT_EQ(cache.changes, total(heard));
    EXPECT_EQ(cache.unseenChanges(), 0u);
    EXPECT_EQ(full.trace.damagedLines, 0u);
    const nlohmann::json entities =
        nlohmann::json::parse(traceJson(full.trace))["caches"][0]["entities"];
    for (const auto& [entity, answer] : simulatorFinalAnswers(sim.timeline)) {
      EXPECT_EQ(entities.contains(entity) ? entities[entity]["lastAnswer"] : "notCached",
                tools::answerName(answer))
          << entity;
    }

    // Info lines only: what the summaries kept, and an exact count.
    const CaptureTrace info = traceText(asThreadtime(sim.log, true));
    ASSERT_TRUE(info.ok) << info.error;
    const CacheRecord& infoCache = info.trace.caches.at(0);
    for (const auto& [entity, changes] : toldInTrace(infoCache)) {
      EXPECT_TRUE(isSubsequence(changes, heard.at(entity))) << entity;
    }
    EXPECT_EQ(infoCache.changes, total(heard));
    EXPECT_GT(infoCache.seenChanges(), 0u);
    EXPECT_LE(infoCache.seenChanges(), infoCache.changes);
    EXPECT_EQ(infoCache.seenChanges() + infoCache.unseenChanges(), infoCache.changes);
    EXPECT_GT(infoCache.unseenChanges(), 0u) << "30 endpoints overflow the first summary";
  }
}

}  // namespace
}  // namespace veranda::reachabilityCache::trace::testing
