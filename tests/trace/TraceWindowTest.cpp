// --from and --to: the trace of a window holds what the whole trace holds
// in it, and counts what the capture's lines in it count.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "CaptureFiles.h"
#include "CaptureLine.h"
#include "SimCaptures.h"
#include "TraceOutput.h"

namespace veranda::reachabilityCache::trace::testing {
namespace {

const char* const HOME = "--devices 20 --duration 4 --interval 1 --flap-rate 30 --fast --seed 3";

// The lines of the library and of its metrics in `capture` whose time lies
// in `window`, with their times.
std::vector<std::pair<Micros, std::string>> linesIn(const std::string& capture,
                                                    const TraceWindow& window) {
  std::vector<std::pair<Micros, std::string>> lines;
  CaptureClock clock;
  std::istringstream in(capture);
  for (std::string line; std::getline(in, line);) {
    const std::optional<CaptureLine> parsed = parseCaptureLine(line);
    const Micros at = parsed ? clock.toMicros(parsed->clock) : NO_TIME;
    const bool metric = parsed && parsed->tag == "Veranda-Metric" &&
                        parsed->text.find("metricName=ReachabilityCache.") != std::string::npos;
    if (parsed && window.contains(at) &&
        (metric || parsed->tag.rfind("ReachabilityCache-", 0) == 0)) {
      lines.emplace_back(at, std::string(parsed->text));
    }
  }
  return lines;
}

TEST(TraceWindowTest, HoldsWhatTheWholeTraceHoldsInTheWindow) {
  const std::string capture = stampedCapture(runSimulator(HOME).log);
  const CaptureTrace whole = traceText(capture);
  ASSERT_TRUE(whole.ok) << whole.error;
  const CacheRecord& all = whole.trace.caches.at(0);
  TraceScope scope;
  const Micros third = (all.endTime() - all.startTime()) / 3;
  scope.window = {all.startTime() + third, all.endTime() - third};
  const CaptureTrace part = traceText(capture, scope);
  ASSERT_TRUE(part.ok) << part.error;
  ASSERT_EQ(part.trace.caches.size(), 1u);
  const CacheRecord& cache = part.trace.caches[0];
  const TraceWindow& window = scope.window;
  EXPECT_EQ(part.trace.window.from, window.from);
  const std::string from = part.trace.clock.format(window.from);
  const std::string to = part.trace.clock.format(window.to);
  std::ostringstream report;
  printReport(part.trace, report);
  EXPECT_NE(report.str().find("All that follows is of the window from " + from + " to " + to),
            std::string::npos)
      << report.str();
  EXPECT_EQ(nlohmann::json::parse(traceJson(part.trace))["window"],
            nlohmann::json({{"from", from}, {"to", to}}));
  EXPECT_FALSE(cache.creationSeen);
  EXPECT_EQ(cache.startTime(), window.from);
  EXPECT_EQ(cache.endTime(), window.to) << "the cache ran on after the window";

  std::vector<std::string> cycles;
  for (const CheckRecord& cycle : all.cycles) {
    if (window.contains(cycle.start)) {
      cycles.push_back(cycle.requestId);
    }
  }
  std::vector<std::string> partCycles;
  for (const CheckRecord& cycle : cache.cycles) {
    partCycles.push_back(cycle.requestId);
  }
  EXPECT_EQ(partCycles, cycles);
  EXPECT_GE(cycles.size(), 1u);

  std::size_t changes = 0;
  for (const EntityRecord& entity : all.entities) {
    SCOPED_TRACE(entity.id);
    std::vector<Micros> told;
    for (const ChangeRecord& change : entity.changes) {
      if (window.contains(change.at)) {
        told.push_back(change.at);
      }
    }
    Answer atStart = Answer::ABSENT;
    std::vector<Answer> answers;
    for (const AnswerRecord& answer : entity.answers) {
      if (window.before(answer.at)) {
        atStart = answer.answer;
      } else if (window.contains(answer.at)) {
        answers.push_back(answer.answer);
      }
    }
    if (atStart != Answer::ABSENT) {
      answers.insert(answers.begin(), atStart);
    }
    const auto index = cache.entityIndex.find(entity.id);
    if (told.empty() && answers.empty()) {
      EXPECT_EQ(index, cache.entityIndex.end()) << "nothing of it in the window";
      continue;
    }
    ASSERT_NE(index, cache.entityIndex.end());
    const EntityRecord& kept = cache.entities[index->second];
    std::vector<Micros> keptTold;
    for (const ChangeRecord& change : kept.changes) {
      keptTold.push_back(change.at);
    }
    std::vector<Answer> keptAnswers;
    for (const AnswerRecord& answer : kept.answers) {
      keptAnswers.push_back(answer.answer);
    }
    EXPECT_EQ(keptTold, told);
    EXPECT_EQ(keptAnswers, answers);
    changes += told.size();
  }
  EXPECT_GT(changes, 10u);

  // The counts are those of the lines in the window.
  uint64_t events = 0;
  uint64_t changed = 0;
  std::set<Micros> messages;  // every message has a millisecond of its own
  for (const auto& [at, text] : linesIn(capture, window)) {
    messages.insert(at);
    events += text.find("action=invokingCallback") != std::string::npos ? 1 : 0;
    const std::size_t count = text.find(" changed=");
    changed += count == std::string::npos ? 0 : std::stoull(text.substr(count + 9));
  }
  EXPECT_EQ(cache.eventsReceived, events);
  EXPECT_EQ(cache.changes, changed);
  EXPECT_EQ(part.trace.messages, messages.size());
  for (const auto& [kind, problem] : cache.problems) {
    if (kind == INTERVAL_DRIFT || kind == DUPLICATE_CHAIN) {
      continue;  // the rhythm of the window's own cycles
    }
    uint64_t inWindow = 0;
    for (Micros at : all.problems.at(kind).times) {
      inWindow += window.contains(at) ? 1 : 0;
    }
    EXPECT_EQ(problem.count, inWindow) << kind;
  }
}

TEST(TraceWindowTest, AWindowAfterTheCaptureHoldsNoCache) {
  const std::string capture = stampedCapture(runSimulator(HOME).log);
  TraceScope scope;
  scope.window.from = traceText(capture).trace.caches.at(0).endTime() + 1;
  const CaptureTrace part = traceText(capture, scope);
  EXPECT_FALSE(part.ok);
  EXPECT_TRUE(part.noCache);
}

}  // namespace
}  // namespace veranda::reachabilityCache::trace::testing
