// reachability-trace against the simulator, which knows the truth: what its
// listener heard, per entity and in order.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "SimCaptures.h"
#include "TraceOutput.h"

namespace veranda::reachabilityCache::trace::testing {
namespace {

// A few seconds of a flapping generated home, in virtual time.
const char* const HOME = "--devices 30 --duration 4 --interval 1 --flap-rate 30 --fast";

std::map<std::string, Told> toldInTrace(const CacheRecord& cache) {
  std::map<std::string, Told> told;
  for (const EntityRecord& entity : cache.entities) {
    for (const ChangeRecord& change : entity.changes) {
      told[entity.id].emplace_back(entity.endpointOf(change), change.reachable);
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
    const SimOutput sim = runSimulator(std::string(HOME) + " --seed " + std::to_string(seed));
    const std::vector<Message> messages = simMessages(sim.log);
    const std::map<std::string, Told> heard = heardByListener(sim.timeline);
    ASSERT_GT(total(heard), 30u) << "the home flaps";

    // With debug lines: every notification, per entity and in order.
    const CaptureTrace full = traceText(deviceCapture(messages));
    ASSERT_TRUE(full.ok) << full.error;
    ASSERT_EQ(full.trace.caches.size(), 1u);
    const CacheRecord& cache = full.trace.caches[0];
    EXPECT_EQ(toldInTrace(cache), heard);
    EXPECT_EQ(cache.changes, total(heard));
    EXPECT_EQ(cache.unseenChanges(), 0u);
    EXPECT_EQ(full.trace.damagedLines, 0u);
    const nlohmann::json entities =
        nlohmann::json::parse(traceJson(full.trace))["caches"][0]["entities"];
    for (const auto& [entity, answer] : finalAnswers(sim.timeline)) {
      EXPECT_EQ(entities.contains(entity) ? entities[entity]["lastAnswer"] : "notCached", answer)
          << entity;
    }

    // Info lines only: what the summaries kept, and an exact count.
    const CaptureTrace info = traceText(deviceCapture(infoOnly(messages)));
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

// In virtual time the simulator stamps its lines with the run's time, as a
// device would: its standard error is a capture the tool reads as it is,
// with the rhythm the home was given.
TEST(TraceAgainstSimTest, ReadsTheSimulatorsOwnLogAsACapture) {
  const SimOutput sim =
      runSimulator("--devices 30 --duration 4 --interval 2 --flap-rate 30 --fast --seed 4");
  const CaptureTrace read = traceText(sim.log);
  ASSERT_TRUE(read.ok) << read.error;
  ASSERT_EQ(read.trace.caches.size(), 1u);
  const CacheRecord& cache = read.trace.caches[0];
  EXPECT_EQ(read.trace.damagedLines, 0u);
  EXPECT_EQ(cache.problems.count(DUPLICATE_CHAIN), 0u);
  EXPECT_EQ(cache.problems.count(INTERVAL_DRIFT), 0u);
  const std::vector<double> gaps = cycleGapsSeconds(cache);
  ASSERT_FALSE(gaps.empty());
  EXPECT_DOUBLE_EQ(percentile(gaps, 0.5), 2.0);
  EXPECT_EQ(toldInTrace(cache), heardByListener(sim.timeline));
  EXPECT_EQ(cache.endTime() - cache.startTime(), Micros{4000000}) << "the run's four seconds";
}

}  // namespace
}  // namespace veranda::reachabilityCache::trace::testing
