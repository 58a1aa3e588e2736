// Every layout a device or a desktop tool writes tells reachability-trace
// the same story: the simulator's lines in each give the same per-entity
// history as in threadtime.
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "SimCaptures.h"
#include "TraceOutput.h"

namespace veranda::reachabilityCache::trace::testing {
namespace {

const char* const HOME = "--devices 20 --duration 4 --interval 1 --flap-rate 30 --fast --seed 5";

// Per entity, its changes and its answers, without their times (whose
// precision the layouts differ in).
std::map<std::string, std::string> histories(const CacheRecord& cache) {
  std::map<std::string, std::string> result;
  for (const EntityRecord& entity : cache.entities) {
    std::string& text = result[entity.id];
    for (const ChangeRecord& change : entity.changes) {
      text += std::string(entity.endpointOf(change)) + (change.reachable ? "+" : "-") +
              std::string(entity.adapterOf(change)) + " ";
    }
    text += "|";
    for (const AnswerRecord& answer : entity.answers) {
      text += std::string(" ") + tools::answerName(answer.answer) + (answer.inferred ? "?" : "") +
              unknownReasonName(answer.reason);
    }
  }
  return result;
}

TEST(TraceLayoutTest, EveryLayoutTellsTheSameHistory) {
  const SimOutput sim = runSimulator(HOME);
  const std::vector<Message> messages = simMessages(sim.log);
  for (const std::vector<Message>& lines : {messages, infoOnly(messages)}) {
    const CaptureTrace reference = traceText(deviceCapture(lines, Form::THREADTIME));
    ASSERT_TRUE(reference.ok) << reference.error;
    const std::map<std::string, std::string> expected = histories(reference.trace.caches.at(0));
    ASSERT_GT(expected.size(), 15u);
    for (Form form : ALL_FORMS) {
      SCOPED_TRACE(formName(form));
      const CaptureTrace read = traceText(deviceCapture(lines, form));
      ASSERT_TRUE(read.ok) << read.error;
      EXPECT_EQ(read.trace.damagedLines, 0u) << read.trace.firstDamaged;
      EXPECT_EQ(read.trace.messages, reference.trace.messages);
      ASSERT_EQ(read.trace.caches.size(), 1u);
      EXPECT_EQ(histories(read.trace.caches[0]), expected);
    }
  }
}

// The clock of each layout, as the report shows it.
TEST(TraceLayoutTest, ShowsTheTimeEachLayoutWrote) {
  const Message created{"11-22 12:12:21.046",
                        3003,
                        3367,
                        'I',
                        FACADE,
                        "[ReachabilityCache]: event=cacheCreated maxCacheSize=9 "
                        "periodicUpdates=false"};
  const std::pair<Form, const char*> forms[] = {
      {Form::THREADTIME, "11-22 12:12:21.046"},
      {Form::UID_YEAR_USEC, "2026-11-22 12:12:21.046"},
      {Form::EPOCH, "2026-11-22 12:12:21.046"},
      {Form::LONG_UID_EPOCH, "2026-11-22 12:12:21.046"},
      {Form::MONOTONIC, "+43941.046"},
      {Form::NSEC, "11-22 12:12:21.046"},
      {Form::IDE_TABLE, "2026-11-22 12:12:21.046"},
      {Form::HOST, "11-22 12:12:21.000"},
  };
  for (const auto& [form, shown] : forms) {
    SCOPED_TRACE(formName(form));
    const CaptureTrace read = traceText(render(created, form));
    ASSERT_TRUE(read.ok) << read.error;
    const CacheRecord& cache = read.trace.caches.at(0);
    EXPECT_TRUE(cache.creationSeen && cache.pid == 3003);
    EXPECT_EQ(read.trace.clock.format(cache.created), shown);
  }
}

}  // namespace
}  // namespace veranda::reachabilityCache::trace::testing
