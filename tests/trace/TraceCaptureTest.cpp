// reachability-trace on hand-made captures: every input form, bug reports,
// restarts and processes, cut summaries, the new year and damaged lines.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "CaptureFiles.h"
#include "LogMessage.h"
#include "TraceOutput.h"

namespace veranda::reachabilityCache::trace::testing {
namespace {

std::string notify(const std::string& endpoint, const std::string& entity, bool reachable) {
  return "[notifyReachabilityListeners]: action=notifyReachabilityListeners endpointId=" +
         endpoint + " entityId=" + entity + " isReachable=" + (reachable ? "true" : "false") +
         " listenerCount=1";
}

// A cache's life: a cycle that finds the plug, an event that drops it, an
// event for an endpoint the cache does not know, a check never answered.
const std::vector<Message> LIFE = {
    {"11-22 12:00:00.000", 3003, 3003, 'I', CHECKER,
     "[ApplianceDriverReachabilityChecker]: status=initialized usingSingleton=false"},
    {"11-22 12:00:00.000", 3003, 3003, 'I', FACADE,
     "[ReachabilityCache]: event=cacheCreated maxCacheSize=50 periodicUpdates=true"},
    {"11-22 12:00:00.001", 3003, 3003, 'I', STORE, "[CacheCore]: maxSize=100"},
    {"11-22 12:00:00.002", 3003, 3003, 'I', UPDATER,
     "[startPeriodicUpdates]: intervalSeconds=2 initialDelayMs=1000"},
    {"11-22 12:00:00.003", 3003, 3003, 'I', UPDATER,
     "[enableProactiveUpdates]: action=enableProactiveUpdates callbackId=reachability_updater_0"},
    {"11-22 12:00:01.000", 3003, 3010, 'D', UPDATER, "[performPeriodicUpdate]: endpointCount=2"},
    {"11-22 12:00:01.000", 3003, 3010, 'D', CHECKER,
     "[checkReachability]: details=requestId=periodic_1 count=2\n   plug-wifi -> kitchen-plug\n"
     "   lamp-zb -> lamp"},
    {"11-22 12:00:01.001", 3003, 3010, 'I', CHECKER,
     "[checkReachability]: requestId=periodic_1 status=requestSent"},
    {"11-22 12:00:01.041", 3003, 3020, 'I', CHECKER,
     "[processDiscoveredDevices]: requestId=periodic_1 deviceCount=1 resultCount=2"},
    {"11-22 12:00:01.041", 3003, 3020, 'I', STORE,
     "[insertEndpoint]: action=newEntity entityId=kitchen-plug endpointId=plug-wifi"},
    {"11-22 12:00:01.041", 3003, 3020, 'D', STORE, notify("plug-wifi", "kitchen-plug", true)},
    {"11-22 12:00:01.042", 3003, 3020, 'I', UPDATER,
     "[processReachabilityResults]: reachable=1 unreachable=1 changed=1 details=\n"
     "    plug-wifi (entityId=kitchen-plug, adapter=PROT_WIFI-ADAPTER): reachable "
     "(becameReachable)\n"
     "    lamp-zb (entityId=lamp, adapter=PROT_ZIGBEE-ADAPTER): unreachable (alreadyUnreachable)"},
    {"11-22 12:00:02.400", 3003, 3021, 'I', CHECKER,
     "[stateChangeCallback]: endpointId=plug-wifi isReachable=false action=invokingCallback"},
    {"11-22 12:00:02.401", 3003, 3010, 'D', STORE, notify("plug-wifi", "kitchen-plug", false)},
    {"11-22 12:00:02.401", 3003, 3010, 'I', UPDATER,
     "[processReachabilityResults]: reachable=0 unreachable=1 changed=1 details=\n"
     "    plug-wifi (entityId=kitchen-plug): unreachable (becameUnreachable)"},
    {"11-22 12:00:02.500", 3003, 3010, 'I', UPDATER,
     "[processReachabilityResults]: reachable=0 unreachable=1 changed=0 details=\n"
     "    ghost (entityId=): unreachable (alreadyUnreachable)"},
    {"11-22 12:00:03.000", 3003, 3010, 'I', CHECKER,
     "[checkReachability]: requestId=periodic_2 status=requestSent"},
    {"11-22 12:00:04.000", 3003, 3003, 'I', FACADE,
     "[~ReachabilityCache]: event=cacheDestroyed cacheSize=1"},
};

// The same life read from every form a capture comes in; only the
// timestamps' precision differs. A check runs from its first line to its
// answer: 41 ms.
TEST(TraceCaptureTest, ReadsTheSameLifeFromEveryForm) {
  const std::pair<Form, std::optional<double>> forms[] = {
      {Form::THREADTIME, 41.0}, {Form::UID_YEAR_USEC, 41.0}, {Form::TIME, 41.0},
      {Form::HOST, 0.0},        {Form::BRIEF, std::nullopt},
  };
  for (const auto& [form, answerMs] : forms) {
    SCOPED_TRACE(static_cast<int>(form));
    const CaptureTrace read = traceText(render(LIFE, form));
    ASSERT_TRUE(read.ok) << read.error;
    ASSERT_EQ(read.trace.caches.size(), 1u);
    const nlohmann::json cache = nlohmann::json::parse(traceJson(read.trace))["caches"][0];
    EXPECT_EQ(cache["pid"], 3003);
    EXPECT_EQ(cache["maxCacheSize"], 50);
    EXPECT_EQ(cache["cycles"].size(), 2u);
    const nlohmann::json& first = cache["cycles"][0];
    EXPECT_EQ(first["requestId"], "periodic_1");
    EXPECT_EQ(first["endpointCount"], 2);
    EXPECT_TRUE(first["started"] && first["answered"]);
    EXPECT_EQ(first["answerMs"], answerMs ? nlohmann::json(*answerMs) : nlohmann::json());
    EXPECT_EQ(first["reachable"], 1);
    EXPECT_EQ(first["unreachable"], 1);
    EXPECT_EQ(first["changed"], 1);
    EXPECT_TRUE(cache["cycles"][1]["started"] && !cache["cycles"][1]["answered"]);
    EXPECT_EQ(cache["cycleStatistics"]["unanswered"], 1);
    EXPECT_EQ(cache["changes"], 2);
    EXPECT_EQ(cache["unseenChanges"], 0);
    const nlohmann::json& plug = cache["entities"]["kitchen-plug"];
    ASSERT_EQ(plug["changes"].size(), 2u);
    EXPECT_EQ(plug["changes"][0]["endpointId"], "plug-wifi");
    EXPECT_EQ(plug["changes"][0]["adapter"], "PROT_WIFI-ADAPTER");
    EXPECT_TRUE(plug["changes"][0]["reachable"] && !plug["changes"][1]["reachable"]);
    EXPECT_EQ(plug["flaps"], 1);
    EXPECT_EQ(plug["lastReachable"], false);
    EXPECT_EQ(cache["entities"]["lamp"]["changes"].size(), 0u);
    EXPECT_EQ(
        cache["problems"],
        nlohmann::json::parse(
            form == Form::BRIEF
                ? R"([{"kind": "unknownEndpointEvent", "count": 1, "first": null}])"
                : R"([{"kind": "unknownEndpointEvent", "count": 1, "first": ")" +
                      std::string(form == Form::UID_YEAR_USEC ? "2026-" : "") +
                      (form == Form::HOST ? "11-22 12:00:02.000" : "11-22 12:00:02.500") + "\"}]"));
    EXPECT_EQ(cache["proactive"]["eventsReceived"], 1);
    EXPECT_EQ(cache["proactive"]["eventsApplied"], 2);
  }
  const nlohmann::json json =
      nlohmann::json::parse(traceJson(traceText(render(LIFE, Form::THREADTIME)).trace));
  EXPECT_EQ(json["caches"][0]["entities"]["kitchen-plug"]["changes"][0]["time"],
            "11-22 12:00:01.041");
}

// The summary of a big batch as the library writes it; the first endpoint's
// id is `pad` characters longer than the others.
std::string bigSummary(std::size_t pad) {
  std::string details;
  for (int i = 10; i < 40; ++i) {
    const std::string n = std::to_string(i);
    details.append("\n    ep-").append(n).append(i == 10 ? pad : 0, 'p');
    details.append("-wifi (entityId=entity-").append(n);
    details.append(", adapter=PROT_WIFI-ADAPTER): reachable (becameReachable)");
  }
  return "[processReachabilityResults]: reachable=30 unreachable=0 changed=30 details=" + details;
}

// Only info lines (production), and a summary longer than the platform keeps,
// cut where its last entry reads "reachable" as if nothing had changed.
TEST(TraceCaptureTest, CountsWhatACutSummaryLostAndInventsNothing) {
  std::size_t pad = 0;
  while (bigSummary(pad).compare(MAX_MESSAGE_BYTES, 18, " (becameReachable)") != 0) {
    ASSERT_LT(++pad, 200u);
  }
  const std::vector<Message> capture = {
      {"11-22 12:00:00.000", 7, 7, 'I', FACADE,
       "[ReachabilityCache]: event=cacheCreated maxCacheSize=100 periodicUpdates=true"},
      {"11-22 12:00:00.500", 7, 7, 'I', STORE,  // the host's own record: reachable
       "[insertEndpoint]: action=newEntity entityId=entity-39 endpointId=ep-39-wifi"},
      {"11-22 12:00:01.000", 7, 8, 'I', CHECKER,
       "[processDiscoveredDevices]: requestId=periodic_0 deviceCount=30 resultCount=30"},
      {"11-22 12:00:01.000", 7, 8, 'I', UPDATER, bigSummary(pad).substr(0, MAX_MESSAGE_BYTES)},
  };
  for (Form form : {Form::THREADTIME, Form::HOST}) {
    const CaptureTrace read = traceText(render(capture, form));
    ASSERT_TRUE(read.ok) << read.error;
    const CacheRecord& cache = read.trace.caches.at(0);
    // About 90 bytes per entry: nine survive whole, the tenth ends in "reachable".
    EXPECT_EQ(cache.changes, 30u);
    EXPECT_EQ(cache.seenChanges(), 9u);
    EXPECT_EQ(cache.unseenChanges(), 21u);
    EXPECT_EQ(cache.entities.size(), 10u) << "the cut entry is not taken at its word";
    EXPECT_EQ(cache.entities.back().id, "entity-18");
    // Its entry lost, what the entity answers after the check is unknown.
    const std::vector<AnswerRecord>& answers = cache.entities.front().answers;
    ASSERT_EQ(answers.size(), 2u);
    EXPECT_TRUE(answers[0].answer == Answer::REACHABLE && answers[1].answer == Answer::UNKNOWN);
    EXPECT_EQ(cache.problems.at(SUMMARY_CUT).count, 1u);
    EXPECT_EQ(cache.cycles.at(0).changed, 30u);
  }
}

// Two processes, a restart, the new year, problems and damaged lines in one
// threadtime capture.
TEST(TraceCaptureTest, SeparatesCachesAcrossRestartsProcessesAndTheNewYear) {
  const auto line = [](const std::string& time, int pid, char priority, const char* tag,
                       const std::string& text) {
    return render(Message{time, pid, pid + 1, priority, tag, text}, Form::THREADTIME);
  };
  const std::string created = "[ReachabilityCache]: event=cacheCreated periodicUpdates=true ";
  const std::string capture =
      "--------- beginning of main\n" +
      line("12-31 23:59:58.000", 100, 'I', FACADE, created + "maxCacheSize=10") +
      line("12-31 23:59:58.000", 200, 'I', FACADE, created + "maxCacheSize=20") +
      line("12-31 23:59:58.500", 200, 'I', UPDATER,
           "[startPeriodicUpdates]: intervalSeconds=1 initialDelayMs=0") +
      line("12-31 23:59:58.600", 200, 'I', UPDATER,
           "[startPeriodicUpdates]: intervalSeconds=1 initialDelayMs=0") +
      line("12-31 23:59:59.900", 100, 'I', CHECKER,
           "[checkReachability]: requestId=periodic_0 status=requestSent") +
      "01-01 00:00:00.0 ReachabilityCache-CacheCore garbled\n" +  // damaged: no header fits
      line("01-01 00:00:00.100", 100, 'I', CHECKER,
           "[processDiscoveredDevices]: requestId=periodic_0 deviceCount=0 resultCount=0") +
      line("01-01 00:00:00.200", 100, 'I', STORE, "maxSize=3 without its label") +  // damaged
      line("01-01 00:00:00.200", 555, 'W', "ReachabilityCacheService",
           "[insertEndpoint]: reason=cacheFull entityId=a endpointId=b") +  // not the library
      line("01-01 00:00:01.000", 200, 'W', STORE,
           "[insertEndpoint]: reason=cacheFull entityId=a endpointId=b") +
      line("01-01 00:00:01.000", 200, 'I', METRIC,
           "[Metric]: metricName=ReachabilityCache.CacheFull maxSize=20 program=p source=s") +
      line("01-01 00:00:02.000", 200, 'W', STORE,
           "[insertEndpoint]: reason=emptyEntityId endpointId=b") +
      line("01-01 00:00:03.000", 200, 'E', UPDATER,
           "[performPeriodicUpdate]: requestId=periodic_4 reason=checkStartFailed") +
      line("01-01 00:00:03.500", 200, 'E', UPDATER,
           "[]: requestId=manual_5 reason=checkStartFailed") +
      line("01-01 00:00:04.000", 200, 'E', UPDATER,
           "[enableProactiveUpdates]: action=enableProactiveUpdates reason=registrationFailed") +
      line("01-01 00:00:04.500", 200, 'W', UPDATER,
           "[performPeriodicUpdate]: reason=chrQueryReturnedEmpty") +
      line("01-01 00:00:05.000", 100, 'I', FACADE, created + "maxCacheSize=30") +
      line("01-01 00:00:05.000", 100, 'I', UPDATER,
           "[startPeriodicUpdates]: intervalSeconds=2 initialDelayMs=0") +
      line("01-01 00:00:05.000", 100, 'I', CHECKER,
           "[checkReachability]: requestId=periodic_0 status=requestSent") +
      line("01-01 00:00:07.000", 100, 'I', CHECKER,
           "[checkReachability]: requestId=periodic_1 status=requestSent") +
      line("01-01 00:00:12.000", 100, 'I', CHECKER,
           "[checkReachability]: requestId=periodic_2 status=requestSent") +
      line("01-01 00:00:14.000", 100, 'E', UPDATER,
           "[performPeriodicUpdate]: reason=chrProviderNull");
  const CaptureTrace read = traceText(capture);
  ASSERT_TRUE(read.ok) << read.error;
  const Trace& trace = read.trace;
  EXPECT_EQ(trace.damagedLines, 2u);
  ASSERT_EQ(trace.caches.size(), 3u);
  const auto problems = [&trace](std::size_t cache) {
    std::string text;
    for (const auto& [kind, problem] : trace.caches[cache].problems) {
      text += kind + " " + std::to_string(problem.count) + " " + trace.clock.format(problem.first) +
              "; ";
    }
    return text;
  };
  const CacheRecord& before = trace.caches[0];
  EXPECT_TRUE(before.pid == 100 && before.maxCacheSize == 10u);
  EXPECT_DOUBLE_EQ(answerLatenciesMs(before).at(0), 200.0) << "across the new year";
  EXPECT_EQ(trace.clock.format(before.cycles.at(0).answeredAt), "01-01 00:00:00.100");
  EXPECT_EQ(trace.caches[1].pid, 200);
  EXPECT_EQ(problems(1),
            "cacheFull 1 01-01 00:00:01.000; checkStartFailed 2 01-01 00:00:03.000; "
            "chrQueryReturnedEmpty 1 01-01 00:00:04.500; "
            "duplicatePeriodicChain 1 12-31 23:59:58.600; insertFailed 1 01-01 00:00:02.000; "
            "subscriptionFailed 1 01-01 00:00:04.000; ");
  EXPECT_EQ(trace.caches[1].metrics.at("ReachabilityCache.CacheFull"), 1u);
  EXPECT_EQ(trace.caches[1].manualChecks.at(0).requestId, "manual_5");
  const CacheRecord& after = trace.caches[2];
  EXPECT_TRUE(after.pid == 100 && after.maxCacheSize == 30u);
  EXPECT_EQ(problems(2),
            "chrProviderNull 1 01-01 00:00:14.000; intervalDrift 1 01-01 00:00:12.000; ");
}

// In a bug report only the log sections count; other sections may name the
// cache in any way.
TEST(TraceCaptureTest, ReadsOnlyTheLogSectionsOfABugReport) {
  const Message created{"11-22 12:00:00.000",
                        42,
                        43,
                        'I',
                        FACADE,
                        "[ReachabilityCache]: event=cacheCreated maxCacheSize=9 "
                        "periodicUpdates=false"};
  const std::string report =
      "========================================================\n== dumpstate: 2026-11-22\n"
      "------ DUMPSYS (dumpsys) ------\n" +
      render(created, Form::THREADTIME) +
      "  ReachabilityCache: bound\n"
      "------ SYSTEM LOG (logcat -v threadtime -v printable -v uid -d *:v) ------\n" +
      render(Message{created.time, 42, 43, 'I', FACADE, created.text + " "}, Form::UID_YEAR_USEC) +
      "------ 0.2s was the duration of 'SYSTEM LOG' ------\n"
      "------ EVENT LOG (logcat -b events -v threadtime -v printable -v uid -d *:v) ------\n"
      "------ CHECKIN (dumpsys) ------\n" +
      render(created, Form::THREADTIME);
  const CaptureTrace read = traceText(report);
  ASSERT_TRUE(read.ok) << read.error;
  EXPECT_TRUE(read.trace.bugReport);
  EXPECT_EQ(read.trace.damagedLines, 0u);
  ASSERT_EQ(read.trace.caches.size(), 1u);
  EXPECT_EQ(read.trace.caches[0].maxCacheSize, 9u);
  EXPECT_EQ(read.trace.caches[0].periodicUpdates, false);
}

// Refused with what the file holds instead.
TEST(TraceCaptureTest, RefusesWhatIsNoCaptureOfTheCache) {
  EXPECT_EQ(traceText("").error, "capture is empty");
  EXPECT_EQ(traceText(std::string("\x7f"
                                  "ELF\x02\x01\x01\0\0\0",
                                  10))
                .error,
            "capture holds no line of the reachability cache (it looks like binary data: 3 of "
            "its 10 bytes are NUL)");
  const std::string store = STORE;
  EXPECT_EQ(traceText(store + ": [CacheCore]: maxSize=1\n2026/11/22 " + store +
                      " [clear]: action=cleared\n")
                .error,
            "capture has 2 lines naming ReachabilityCache but none in a layout this tool reads; "
            "the first: '" +
                store + ": [CacheCore]: maxSize=1'");
  EXPECT_EQ(traceText(render(Message{"11-22 12:00:00.000", 1, 1, 'I', "ActivityManager",
                                     "Start proc ReachabilityCacheService"},
                             Form::THREADTIME))
                .error,
            "capture holds no line of the reachability cache");
}

// An entity's story shows each change with the lines that caused it.
TEST(TraceCaptureTest, TellsAnEntitysStoryWithTheLinesBehindEachChange) {
  const std::string capture = render(LIFE, Form::THREADTIME);
  const CaptureTrace read = traceText(capture, "kitchen-plug");
  ASSERT_TRUE(read.ok) << read.error;
  std::ostringstream story;
  ASSERT_TRUE(printEntityStory(read.trace, "kitchen-plug", story));
  const std::string text = story.str();
  const auto at = [&text](const std::string& part) { return text.find(part); };
  // The check's answer, the notification, the summary's entry; then the event.
  const std::size_t answer = at("[processDiscoveredDevices]: requestId=periodic_1");
  const std::size_t told = at("isReachable=true listenerCount=1");
  const std::size_t entry = at("3020 I ReachabilityCache-ReachabilityUpdater:     plug-wifi");
  const std::size_t event = at("[stateChangeCallback]: endpointId=plug-wifi isReachable=false");
  ASSERT_NE(entry, std::string::npos) << text;
  EXPECT_TRUE(answer < told && told < entry && entry < event && event != std::string::npos) << text;
  EXPECT_EQ(at("lamp-zb"), std::string::npos) << "other entities stay out of the story";
  EXPECT_FALSE(printEntityStory(read.trace, "nobody", story));
}

}  // namespace
}  // namespace veranda::reachabilityCache::trace::testing
