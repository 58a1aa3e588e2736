// Whatever a capture holds, the trace keeps a bounded amount of it: past its
// limits it counts what it leaves out and says so, and its figures stay
// exact.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <sstream>
#include <string>
#include <vector>

#include "CaptureFiles.h"
#include "TraceOutput.h"

namespace veranda::reachabilityCache::trace::testing {
namespace {

std::string time(int second, int millis = 0) {
  char text[32];
  std::snprintf(text, sizeof(text), "11-22 %02d:%02d:%02d.%03d", second / 3600, second / 60 % 60,
                second % 60, millis);
  return text;
}

Message created(int pid) {
  return {time(0), pid,
          pid,     'I',
          FACADE,  "[ReachabilityCache]: event=cacheCreated maxCacheSize=10 periodicUpdates=true"};
}

Message result(int second, const std::string& entity, const std::string& endpoint, bool up) {
  return {time(second),
          7,
          8,
          'I',
          UPDATER,
          std::string("[processReachabilityResults]: reachable=") + (up ? "1" : "0") +
              " unreachable=" + (up ? "0" : "1") + " changed=1 details=\n    " + endpoint +
              " (entityId=" + entity +
              (up ? ", adapter=W): reachable (becameReachable)"
                  : "): unreachable (becameUnreachable)")};
}

TEST(TraceLimitsTest, EntitiesProcessesAndChecksPastTheLimitsAreCountedNotKept) {
  TraceLimits limits;
  limits.caches = 3;
  limits.entities = 100;
  limits.checks = 20;
  limits.pendingChecks = 8;
  std::vector<Message> capture = {created(7)};
  for (int i = 0; i < 300; ++i) {
    capture.push_back(result(1 + i, "entity-" + std::to_string(i), "ep", true));
  }
  for (int i = 0; i < 100; ++i) {  // checks that are never answered
    capture.push_back(
        {time(400 + i), 7, 9, 'I', CHECKER,
         "[checkReachability]: requestId=manual_" + std::to_string(i) + " status=requestSent"});
  }
  for (int pid = 100; pid < 110; ++pid) {
    capture.push_back(created(pid));
  }
  const CaptureTrace read = traceText(render(capture, Form::THREADTIME), "", limits);
  ASSERT_TRUE(read.ok) << read.error;
  const Trace& trace = read.trace;
  EXPECT_EQ(trace.caches.size(), 3u);
  EXPECT_EQ(trace.leftOut.processLines, 8u);
  EXPECT_EQ(trace.caches[0].entities.size(), 100u);
  EXPECT_EQ(trace.leftOut.entityLines, 200u);
  EXPECT_EQ(trace.caches[0].changes, 300u) << "the summaries' counts are all taken";
  EXPECT_EQ(trace.caches[0].manualChecks.size(), 20u);
  EXPECT_EQ(trace.caches[0].manualChecksLeftOut, 80u);
  EXPECT_EQ(trace.leftOut.pendingChecks, 92u);
  const nlohmann::json json = nlohmann::json::parse(traceJson(trace));
  EXPECT_EQ(json["leftOut"]["entityLines"], 200);
  EXPECT_EQ(json["caches"][0]["manualChecksLeftOut"], 80);
  std::ostringstream report;
  printReport(trace, report);
  EXPECT_NE(report.str().find("Past the trace's limits, left out: 8 lines of processes past the "
                              "first 3, 200 lines about entities past the first 100"),
            std::string::npos)
      << report.str();
}

// An entity that flaps more often than the trace keeps answers: what is
// listed stops at the limit, the figures count every flap.
TEST(TraceLimitsTest, FiguresStayExactPastTheAnswersKept) {
  TraceLimits limits;
  limits.answers = 50;
  limits.changes = 30;
  std::vector<Message> capture = {created(7)};
  for (int i = 0; i < 200; ++i) {  // reachable for 1 s, unreachable for 2 s
    capture.push_back(result(1 + 3 * i, "lamp", "lamp-zb", true));
    capture.push_back(result(2 + 3 * i, "lamp", "lamp-zb", false));
  }
  capture.push_back(
      {time(601), 7, 7, 'I', FACADE, "[~ReachabilityCache]: event=cacheDestroyed cacheSize=1"});
  const CaptureTrace read = traceText(render(capture, Form::THREADTIME), "", limits);
  ASSERT_TRUE(read.ok) << read.error;
  const CacheRecord& cache = read.trace.caches.at(0);
  const EntityRecord& lamp = cache.entities.at(0);
  EXPECT_EQ(lamp.changes.size(), 30u);
  EXPECT_EQ(lamp.changesLeftOut, 370u);
  EXPECT_LE(lamp.answers.size(), 51u);
  EXPECT_GT(lamp.answersLeftOut, 340u);
  const EntityFigures figures = entityFigures(lamp, cache.endTime(), AnswerRecord{});
  EXPECT_EQ(figures.changes, 400u);
  EXPECT_EQ(figures.flaps, 200u);
  EXPECT_DOUBLE_EQ(figures.unreachableSeconds, 400.0);
  EXPECT_EQ(figures.last.answer, Answer::UNREACHABLE);
  // The picture shows the answers left out as unknown.
  const tools::TimelinePicture picture = tracePicture(read.trace, 0, "c");
  EXPECT_EQ(picture.rows.at(0).spans.back().answer, Answer::UNREACHABLE);
  bool leftOut = false;
  for (const tools::AnswerSpan& span : picture.rows.at(0).spans) {
    leftOut = leftOut || span.answer == Answer::UNKNOWN;
  }
  EXPECT_TRUE(leftOut);
}

// Past its limit of endpoints an entity's answer is unknown: the trace no
// longer follows all it holds.
TEST(TraceLimitsTest, AnEntityWithTooManyEndpointsTurnsUnknown) {
  TraceLimits limits;
  limits.endpointsPerEntity = 4;
  std::vector<Message> capture = {created(7)};
  for (int i = 0; i < 6; ++i) {
    capture.push_back(result(1 + i, "hub", "ep-" + std::to_string(i), true));
  }
  const CaptureTrace read = traceText(render(capture, Form::THREADTIME), "", limits);
  ASSERT_TRUE(read.ok) << read.error;
  const EntityRecord& hub = read.trace.caches.at(0).entities.at(0);
  EXPECT_EQ(hub.endpoints.size(), 4u);
  EXPECT_EQ(read.trace.leftOut.endpointLines, 2u);
  EXPECT_EQ(hub.answers.back().reason, UnknownReason::LEFT_OUT);
}

}  // namespace
}  // namespace veranda::reachabilityCache::trace::testing
