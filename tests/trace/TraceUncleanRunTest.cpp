// Captures that are not one clean run: the clock set back, a process
// replaced, lines the platform's rate limiter dropped.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "CaptureFiles.h"
#include "TraceOutput.h"

namespace veranda::reachabilityCache::trace::testing {
namespace {

Message at(const std::string& time, int pid, const char* tag, const std::string& text) {
  return {"11-22 " + time, pid, pid + 1, 'I', tag, text};
}

const std::string CREATED =
    "[ReachabilityCache]: event=cacheCreated maxCacheSize=10 periodicUpdates=true";

std::string summary(const std::string& entry) {
  const bool reachable = entry.find("): reachable") != std::string::npos;
  const bool changed = entry.find("(became") != std::string::npos;
  return std::string("[processReachabilityResults]: reachable=") + (reachable ? "1" : "0") +
         " unreachable=" + (reachable ? "0" : "1") + " changed=" + (changed ? "1" : "0") +
         " details=\n    " + entry;
}

std::string report(const Trace& trace) {
  std::ostringstream out;
  printReport(trace, out);
  return out.str();
}

// The device's clock set back an hour halfway: times as written, durations
// by the lines' order, and a warning.
TEST(TraceUncleanRunTest, AClockSetBackKeepsTheLineOrder) {
  const std::vector<Message> capture = {
      at("09:00:00.000", 5, FACADE, CREATED),
      at("09:10:00.000", 5, UPDATER,
         summary("lamp-zb (entityId=lamp, adapter=Z): reachable (becameReachable)")),
      at("09:30:00.000", 5, UPDATER,
         summary("lamp-zb (entityId=lamp): unreachable (becameUnreachable)")),
      at("08:30:00.500", 5, UPDATER, summary("lamp-zb (entityId=lamp): reachable")),
      at("08:59:59.000", 5, FACADE, "[~ReachabilityCache]: event=cacheDestroyed cacheSize=1"),
  };
  const CaptureTrace read = traceText(render(capture, Form::THREADTIME));
  ASSERT_TRUE(read.ok) << read.error;
  const Trace& trace = read.trace;
  ASSERT_EQ(trace.clock.steps().size(), 1u);
  EXPECT_EQ(trace.clock.steps()[0].back, Micros{3599500000});
  const CacheRecord& cache = trace.caches.at(0);
  EXPECT_EQ(trace.clock.format(cache.created), "11-22 09:00:00.000");
  EXPECT_EQ(trace.clock.format(cache.destroyed), "11-22 08:59:59.000");
  EXPECT_GT(cache.endTime(), cache.startTime());
  // Unreachable from 09:30:00 to the line at 08:30:00.500: no time passes
  // over the step.
  const EntityFigures lamp = entityFigures(cache.entities.at(0), cache.endTime(), AnswerRecord{});
  EXPECT_DOUBLE_EQ(lamp.unreachableSeconds, 0.0);
  EXPECT_NE(report(trace).find("The device's clock went back 1 time, by up to 0:59:59.500, first "
                               "at 11-22 08:30:00.500: times are shown as the device wrote them"),
            std::string::npos)
      << report(trace);
  const tools::TimelinePicture picture = tracePicture(trace, 0, "c");
  EXPECT_EQ(picture.durationMs, 1800000 + 1798500) << "09:00 to 09:30, then 08:30:00.5 on";
}

// A cache whose lines end before a new cache's creation in another process
// ended there; two caches that interleave are both running.
TEST(TraceUncleanRunTest, AReplacedProcessEndsItsCache) {
  const std::vector<Message> capture = {
      at("10:00:00.000", 100, FACADE, CREATED),
      at("10:00:05.000", 100, UPDATER,
         summary("lamp-zb (entityId=lamp, adapter=Z): reachable (becameReachable)")),
      at("10:01:00.000", 200, FACADE, CREATED),
      at("10:01:01.000", 300, UPDATER, summary("plug (entityId=plug): reachable")),
      at("10:01:02.000", 200, UPDATER, summary("plug (entityId=plug): reachable")),
      at("10:01:03.000", 300, UPDATER, summary("plug (entityId=plug): reachable")),
  };
  const CaptureTrace read = traceText(render(capture, Form::THREADTIME));
  ASSERT_TRUE(read.ok) << read.error;
  const std::vector<CacheRecord>& caches = read.trace.caches;
  ASSERT_EQ(caches.size(), 3u);
  EXPECT_EQ(caches[0].replacedBy, 200);
  EXPECT_FALSE(caches[1].replacedBy);
  EXPECT_FALSE(caches[2].replacedBy) << "pid 300 logs on after pid 200 started";
  EXPECT_NE(report(read.trace)
                .find("Cache 1 (pid 100): created 11-22 10:00:00.000, ended after its "
                      "last line at 11-22 10:00:05.000: a new cache started later "
                      "in pid 200"),
            std::string::npos)
      << report(read.trace);
}

// The rate limiter's notices for the cache's process: counted, and what the
// dropped lines did is unknown until a line tells.
TEST(TraceUncleanRunTest, RateLimiterNoticesMakeAnswersUnknown) {
  const std::vector<Message> capture = {
      at("10:00:00.000", 100, FACADE, CREATED),
      at("10:00:01.000", 100, UPDATER,
         summary("lamp-zb (entityId=lamp, adapter=Z): reachable (becameReachable)")),
      at("10:00:02.000", 100, "chatty", "uid=10187(com.example.home) expire 40 lines"),
      at("10:00:02.500", 900, "chatty", "uid=1000(system) identical 7 lines"),  // another's
      at("10:00:03.000", 100, "chatty", "uid=10187(com.example.home) identical 12 lines"),
      at("10:00:04.000", 100, UPDATER, summary("lamp-zb (entityId=lamp): reachable")),
  };
  for (Form form : {Form::THREADTIME, Form::LONG, Form::IDE_TABLE}) {
    SCOPED_TRACE(formName(form));
    const CaptureTrace read = traceText(render(capture, form));
    ASSERT_TRUE(read.ok) << read.error;
    const CacheRecord& cache = read.trace.caches.at(0);
    EXPECT_EQ(cache.rateLimitNotices, 2u);
    EXPECT_EQ(cache.expiredLines, 40u);
    EXPECT_EQ(cache.identicalLines, 12u);
    const std::vector<AnswerRecord>& answers = cache.entities.at(0).answers;
    ASSERT_EQ(answers.size(), 3u);
    EXPECT_EQ(answers[1].answer, Answer::UNKNOWN);
    EXPECT_EQ(answers[1].reason, UnknownReason::LINES_DROPPED);
    const std::string time = read.trace.clock.format(answers[1].at);
    EXPECT_EQ(time.substr(time.size() - 18), "11-22 10:00:02.000");
    EXPECT_EQ(answers[2].answer, Answer::REACHABLE) << "the summary tells again";
  }
}

}  // namespace
}  // namespace veranda::reachabilityCache::trace::testing
