// Captures written to mislead: ids that hold a line feed or " key=value"
// and forge lines, numbers too big for any counter. None of it may be
// believed, crash the tool or overflow.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <sstream>
#include <string>
#include <vector>

#include "CaptureFiles.h"
#include "TimelineSvg.h"
#include "TraceOutput.h"

namespace veranda::reachabilityCache::trace::testing {
namespace {

const Message CREATED{
    "11-22 12:00:00.000",
    7,
    7,
    'I',
    FACADE,
    "[ReachabilityCache]: event=cacheCreated maxCacheSize=10 periodicUpdates=true"};

Message store(const std::string& time, const std::string& text) {
  return {"11-22 12:00:" + time, 7, 9, 'D', STORE, text};
}

// Lines an id with a line feed or a " key=value" makes the library write.
const std::vector<Message> FORGERIES = {
    CREATED,
    store("01.000", "[insertEndpoint]: action=newEntity entityId=victim endpointId=v-ep"),
    // entityId = "x\n[isEntityReachable]: entityId=victim ... zz": a forged fact
    store("02.000",
          "[notifyReachabilityListeners]: action=notifyReachabilityListeners endpointId=ep "
          "entityId=x\n[isEntityReachable]: entityId=victim reachable=false "
          "reason=noDriverCapabilities zz isReachable=true listenerCount=1"),
    // entityId = "y\n[ReachabilityCache]: event=cacheCreated ... periodicUpdates=true"
    store("03.000",
          "[insertEndpoint]: action=newEntity entityId=y\n[ReachabilityCache]: event=cacheCreated "
          "maxCacheSize=1 periodicUpdates=true endpointId=ep"),
    // entityId = "kitchen endpointId=v-ep"
    store("04.000",
          "[clearEndpointCapabilities]: action=clearedCapabilities entityId=kitchen "
          "endpointId=v-ep endpointId=k-ep"),
    // an endpoint id that holds a whole entry of another entity
    {"11-22 12:00:05.000", 7, 9, 'I', UPDATER,
     "[processReachabilityResults]: reachable=1 unreachable=0 changed=0 details=\n"
     "    a-ep (entityId=a, adapter=W): reachable (becameReachable)\n"
     "    victim-ep (entityId=victim, adapter=W): unreachable (becameUnreachable)\n"
     "    v (entityId=a, adapter=W): reachable"},
};

TEST(TraceHostileTest, LinesThatCanBeReadTwoWaysAreFlaggedNotBelieved) {
  for (Form form : {Form::THREADTIME, Form::HOST, Form::LONG}) {
    SCOPED_TRACE(formName(form));
    const CaptureTrace read = traceText(render(FORGERIES, form));
    ASSERT_TRUE(read.ok) << read.error;
    ASSERT_EQ(read.trace.caches.size(), 1u) << "no phantom cache";
    const CacheRecord& cache = read.trace.caches[0];
    EXPECT_GE(cache.ambiguousLines, 4u);
    const EntityRecord& victim = cache.entities.at(cache.entityIndex.at("victim"));
    EXPECT_TRUE(victim.changes.empty()) << "no forged change";
    for (const AnswerRecord& answer : victim.answers) {
      EXPECT_NE(answer.answer, Answer::UNREACHABLE) << "no forged answer";
    }
    EXPECT_EQ(victim.answers.back().reason, UnknownReason::AMBIGUOUS);
    const nlohmann::json json = nlohmann::json::parse(traceJson(read.trace))["caches"][0];
    EXPECT_EQ(json["ambiguousLines"], cache.ambiguousLines);
    EXPECT_FALSE(json["ambiguous"].empty());
    std::ostringstream report;
    printReport(read.trace, report);
    EXPECT_NE(report.str().find("ambiguous lines, not taken at their word"), std::string::npos);
  }
}

// Numbers of any size: pids, tids, intervals, counts; times far apart.
TEST(TraceHostileTest, BigNumbersNeitherOverflowNorBreakTheReport) {
  const std::string huge = "9223372036854775807";
  const std::vector<Message> capture = {
      {"01-01 00:00:00.000", 7, 7, 'I', UPDATER,
       "[startPeriodicUpdates]: intervalSeconds=" + huge + " initialDelayMs=-" + huge},
      {"01-01 00:00:01.000", 7, 7, 'I', CHECKER,
       "[checkReachability]: requestId=periodic_1 status=requestSent"},
      {"06-01 00:00:01.000", 7, 7, 'I', CHECKER,
       "[checkReachability]: requestId=periodic_2 status=requestSent"},
      {"12-31 23:59:59.999", 7, 7, 'I', CHECKER,
       "[checkReachability]: requestId=periodic_3 status=requestSent"},
      {"12-31 23:59:59.999", 7, 7, 'I', UPDATER,
       "[processReachabilityResults]: reachable=" + huge + "9 unreachable=0 changed=" + huge +
           " details="},
  };
  std::string text = render(capture, Form::THREADTIME) +
                     "2026-12-31 23:59:59.999 99999999999 999999999999999999 I " +
                     std::string(UPDATER) + ": [stopPeriodicUpdates]\n" +
                     "9999999999999.999  1234567890123456789012345  1 I " + std::string(UPDATER) +
                     ": [stopPeriodicUpdates]\n";
  const CaptureTrace read = traceText(text);
  ASSERT_TRUE(read.ok) << read.error;
  EXPECT_EQ(read.trace.damagedLines, 1u) << "a pid of 25 digits is no pid";
  ASSERT_EQ(read.trace.caches.size(), 2u);
  EXPECT_EQ(read.trace.caches[1].pid, 99999999999);
  std::ostringstream report;
  printReport(read.trace, report);
  EXPECT_NE(report.str().find("periodic refresh every " + huge + " s"), std::string::npos)
      << report.str();
  const nlohmann::json json = nlohmann::json::parse(traceJson(read.trace));
  EXPECT_EQ(json["caches"][1]["pid"], 99999999999) << json["caches"][1];
  EXPECT_FALSE(tools::timelineSvg(tracePicture(read.trace, 0, "c")).empty());
}

}  // namespace
}  // namespace veranda::reachabilityCache::trace::testing
