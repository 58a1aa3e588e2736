// What isEntityReachable answered at a moment, and the numbered lines that
// made it so: against the simulator, which knows every answer, on a capture
// that starts mid-run, in a bug report with two boots, and for each kind of
// cause.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "AnswerAt.h"
#include "CaptureFiles.h"
#include "CaptureLine.h"
#include "CaptureMoment.h"
#include "SimCaptures.h"

namespace veranda::reachabilityCache::trace::testing {
namespace {

// A few seconds of a flapping generated home, in virtual time.
const char* const HOME = "--devices 30 --duration 4 --interval 1 --flap-rate 30 --fast --seed 5";

struct Notification {
  uint64_t line = 0;  // in the capture
  Micros at = NO_TIME;
};

// The capture's notification lines per entity, in order.
std::map<std::string, std::vector<Notification>> notifications(const std::string& capture) {
  std::map<std::string, std::vector<Notification>> found;
  CaptureClock clock;
  const std::vector<std::string> lines = linesOf(capture);
  for (std::size_t i = 0; i < lines.size(); ++i) {
    const std::optional<CaptureLine> parsed = parseCaptureLine(lines[i]);
    const std::size_t entity = lines[i].find(" entityId=");
    if (parsed && lines[i].find("[notifyReachabilityListeners]") != std::string::npos &&
        entity != std::string::npos) {
      const std::size_t from = entity + 10;
      found[lines[i].substr(from, lines[i].find(' ', from) - from)].push_back(
          {i + 1, clock.toMicros(parsed->clock)});
    }
  }
  return found;
}

bool holdsLine(const std::vector<EvidenceLine>& lines, uint64_t number) {
  return std::any_of(lines.begin(), lines.end(),
                     [number](const EvidenceLine& line) { return line.number == number; });
}

CaptureTrace everyEntitysEvidence(const std::string& capture) {
  TraceScope scope;
  scope.evidence.everyEntity = true;
  return traceText(capture, scope);
}

// At every notification of a flapping home, the answer the tool gives for
// that moment is the one the simulator's listener read from the cache then;
// where the answer changed at that moment, the notification is among the
// lines that made it so.
TEST(AnswerAtTest, AgreesWithTheSimulatorAtEveryNotification) {
  const SimOutput sim = runSimulator(HOME);
  const std::string capture = stampedCapture(sim.log);
  const CaptureTrace read = everyEntitysEvidence(capture);
  ASSERT_TRUE(read.ok) << read.error;
  const auto heard = answersHeard(sim.timeline);
  const auto told = notifications(capture);
  std::size_t checked = 0;
  std::size_t changedThen = 0;
  for (const auto& [entity, answers] : heard) {
    const std::vector<Notification>& lines = told.at(entity);
    ASSERT_EQ(lines.size(), answers.size()) << entity;
    for (std::size_t k = 0; k < answers.size(); ++k) {
      SCOPED_TRACE(entity + " at line " + std::to_string(lines[k].line));
      const std::vector<AnswerAtMoment> at = answersAt(read.trace, entity, lines[k].at);
      ASSERT_EQ(at.size(), 1u);
      EXPECT_EQ(at[0].span.answer, answers[k]);
      ASSERT_NE(at[0].span.record, nullptr);
      ASSERT_NE(at[0].cause, nullptr);
      ASSERT_NE(at[0].told, nullptr);
      const auto told = static_cast<std::size_t>(at[0].told - at[0].entity->changes.data());
      EXPECT_TRUE(holdsLine(at[0].entity->evidence.at(told), lines[k].line));
      // The store's line comes a millisecond before its notification.
      if (at[0].span.from >= lines[k].at - 1000) {
        EXPECT_TRUE(holdsLine(at[0].cause->lines, lines[k].line));
        ++changedThen;
      }
      ++checked;
    }
  }
  EXPECT_GT(checked, 50u);
  EXPECT_GT(changedThen, 20u);
}

// The simulator's log from its second cycle on: a capture that starts in
// the middle of the cache's life.
std::string midRunCapture(const std::string& capture) {
  const std::size_t cycle =
      capture.find("[performPeriodicUpdate]: endpointCount",
                   capture.find("[performPeriodicUpdate]: endpointCount") + 1);
  EXPECT_NE(cycle, std::string::npos);
  return capture.substr(capture.rfind('\n', cycle) + 1);
}

// Before the first line about an entity, the answer is unknown, never a
// guess; at the capture's end, after cycles that named every entity, the
// answers are the simulator's.
TEST(AnswerAtTest, SaysUnknownBeforeTheFirstLineOfAMidRunCapture) {
  const SimOutput sim = runSimulator(HOME);
  const CaptureTrace read = everyEntitysEvidence(midRunCapture(stampedCapture(sim.log)));
  ASSERT_TRUE(read.ok) << read.error;
  ASSERT_EQ(read.trace.caches.size(), 1u);
  const CacheRecord& cache = read.trace.caches[0];
  EXPECT_FALSE(cache.creationSeen);
  std::size_t unknownAtStart = 0;
  std::size_t named = 0;
  const std::map<std::string, std::string> answers = finalAnswers(sim.timeline);
  for (const auto& [entity, answer] : answers) {
    SCOPED_TRACE(entity);
    const std::vector<AnswerAtMoment> first = answersAt(read.trace, entity, cache.startTime());
    ASSERT_EQ(first.size(), 1u);
    if (first[0].span.record == nullptr) {
      EXPECT_EQ(first[0].span.answer, Answer::UNKNOWN);
      EXPECT_EQ(first[0].span.reason, UnknownReason::CAPTURE_START);
      ++unknownAtStart;
    }
    const std::vector<AnswerAtMoment> last = answersAt(read.trace, entity, cache.endTime());
    ASSERT_EQ(last.size(), 1u);
    if (last[0].span.answer == Answer::UNKNOWN) {  // the lines after the cut do not tell
      continue;
    }
    ++named;
    EXPECT_EQ(tools::answerName(last[0].span.answer), answer);
    ASSERT_NE(last[0].cause, nullptr);
    EXPECT_FALSE(last[0].cause->lines.empty());
  }
  EXPECT_GT(named, 20u);
  EXPECT_EQ(unknownAtStart, answers.size()) << "no line comes before the cut";
}

// At every notification of a capture that starts mid-run, the answer is the
// simulator's or unknown: never a guess.
TEST(AnswerAtTest, NeverContradictsTheSimulatorInAMidRunCapture) {
  const SimOutput sim = runSimulator(HOME);
  const std::string whole = stampedCapture(sim.log);
  const std::string part = midRunCapture(whole);
  const CaptureTrace read = everyEntitysEvidence(part);
  ASSERT_TRUE(read.ok) << read.error;
  const auto heard = answersHeard(sim.timeline);
  const auto toldWhole = notifications(whole);
  std::size_t known = 0;
  std::size_t unknown = 0;
  for (const auto& [entity, lines] : notifications(part)) {
    const std::vector<Answer>& answers = heard.at(entity);
    const std::size_t skipped = toldWhole.at(entity).size() - lines.size();
    for (std::size_t k = 0; k < lines.size(); ++k) {
      const Answer answer = answersAt(read.trace, entity, lines[k].at).at(0).span.answer;
      EXPECT_TRUE(answer == answers[skipped + k] || answer == Answer::UNKNOWN)
          << entity << " at line " << lines[k].line;
      ++(answer == Answer::UNKNOWN ? unknown : known);
    }
  }
  EXPECT_GT(known, 20u) << "the later lines tell most answers";
  EXPECT_GT(unknown, 0u) << "the first lines cannot tell every answer";
}

std::string created(const std::string& time, int pid) {
  return render(Message{time, pid, pid, 'I', FACADE,
                        "[ReachabilityCache]: event=cacheCreated maxCacheSize=10 "
                        "periodicUpdates=true"},
                Form::THREADTIME);
}

// A cycle whose answer makes the plug reachable, on thread pid + 1: the
// store takes it in as a new entity, or merges it into the one it holds.
std::string plugFound(const std::string& time, int pid, int cycle,
                      const std::string& action = "newEntity") {
  const std::string request = "periodic_" + std::to_string(cycle);
  return render(
      std::vector<Message>{
          {time, pid, pid + 1, 'I', CHECKER,
           "[checkReachability]: requestId=" + request + " status=requestSent"},
          {time, pid, pid + 1, 'I', CHECKER,
           "[processDiscoveredDevices]: requestId=" + request + " deviceCount=1 resultCount=1"},
          {time, pid, pid + 1, 'I', STORE,
           "[insertEndpoint]: action=" + action + " entityId=plug endpointId=plug-wifi"},
          {time, pid, pid + 1, 'I', UPDATER,
           "[processReachabilityResults]: reachable=1 unreachable=0 changed=1 details=\n"
           "    plug-wifi (entityId=plug, adapter=PROT_WIFI-ADAPTER): reachable "
           "(becameReachable)"}},
      Form::THREADTIME);
}

std::string plugDropped(const std::string& time, int pid) {
  return render(
      std::vector<Message>{
          {time, pid, pid + 2, 'I', CHECKER,
           "[stateChangeCallback]: endpointId=plug-wifi isReachable=false "
           "action=invokingCallback"},
          {time, pid, pid + 1, 'I', UPDATER,
           "[processReachabilityResults]: reachable=0 unreachable=1 changed=1 details=\n"
           "    plug-wifi (entityId=plug): unreachable (becameUnreachable)"}},
      Form::THREADTIME);
}

uint64_t lineOf(const std::string& capture, const std::string& text) {
  const std::vector<std::string> lines = linesOf(capture);
  const auto found = std::find_if(lines.begin(), lines.end(), [&](const std::string& line) {
    return line.find(text) != std::string::npos;
  });
  return found == lines.end() ? 0 : static_cast<uint64_t>(found - lines.begin()) + 1;
}

// A bug report holds this boot's log and the last boot's, both with a cache
// of the same pid: each moment is answered by the cache of its boot, with
// the lines of that boot's section.
TEST(AnswerAtTest, AnswersFromTheBootOfTheMomentInABugReport) {
  const std::string report =
      "== dumpstate: 2026-11-22 10:05:00\n"
      "------ SYSTEM LOG (logcat -v threadtime -v printable -v uid -d *:v) ------\n" +
      created("11-22 10:00:00.000", 700) + plugFound("11-22 10:00:01.000", 700, 0) +
      render(Message{"11-22 10:04:00.000", 700, 701, 'I', CHECKER,
                     "[checkReachability]: requestId=periodic_1 status=requestSent"},
             Form::THREADTIME) +
      "------ 0.1s was the duration of 'SYSTEM LOG' ------\n"
      "------ LAST LOGCAT (logcat -L -b all -v threadtime -v printable -v uid -d *:v) ------\n" +
      created("11-22 08:00:00.000", 700) + plugFound("11-22 08:00:01.000", 700, 0) +
      plugDropped("11-22 08:05:00.000", 700) + plugFound("11-22 08:10:00.000", 700, 5, "merged");
  const CaptureTrace read = traceText(report, "plug");
  ASSERT_TRUE(read.ok) << read.error;
  ASSERT_EQ(read.trace.caches.size(), 2u);
  const auto at = [&](const std::string& time) {
    const auto moment = parseCaptureMoment(time);
    const Micros when = resolveCaptureMoment(*moment, read.trace).at;
    return answersAt(read.trace, "plug", when);
  };

  const std::vector<AnswerAtMoment> lastBoot = at("08:06");
  ASSERT_EQ(lastBoot.size(), 1u);
  EXPECT_EQ(lastBoot[0].cache, 1u);
  EXPECT_EQ(lastBoot[0].span.answer, Answer::UNREACHABLE);
  ASSERT_NE(lastBoot[0].cause, nullptr);
  EXPECT_EQ(lastBoot[0].cause->kind, CauseKind::EVENT);
  std::vector<uint64_t> numbers;
  for (const EvidenceLine& line : lastBoot[0].cause->lines) {
    numbers.push_back(line.number);
  }
  const uint64_t event = lineOf(report, "[stateChangeCallback]");
  EXPECT_EQ(numbers, (std::vector<uint64_t>{event, event + 1, event + 2}));

  const std::vector<AnswerAtMoment> thisBoot = at("10:00:00.500");
  ASSERT_EQ(thisBoot.size(), 1u);
  EXPECT_EQ(thisBoot[0].cache, 0u);
  EXPECT_EQ(thisBoot[0].span.answer, Answer::ABSENT) << "created, the plug not taken in yet";
  EXPECT_EQ(at("10:02").at(0).span.answer, Answer::REACHABLE);
  EXPECT_TRUE(at("09:00").empty()) << "between the boots no cache ran";
}

std::string threadtime(const std::vector<Message>& messages) {
  return render(messages, Form::THREADTIME);
}

// Each kind of cause with exactly its lines: a cycle's result, a sweep, the
// host's record, removal and invalidation, a logged query, and a summary
// the platform cut.
TEST(AnswerAtTest, NamesEachKindOfCauseWithItsLines) {
  const std::string capture =
      created("11-22 12:00:00.000", 50) + plugFound("11-22 12:00:01.000", 50, 0) +
      threadtime({
          {"11-22 12:00:02.000", 50, 51, 'D', UPDATER, "[performPeriodicUpdate]: endpointCount=1"},
          {"11-22 12:00:02.000", 50, 51, 'I', STORE,
           "[removeEndpoint]: action=removedEndpointAndEntity entityId=plug endpointId=plug-wifi"},
          {"11-22 12:00:02.000", 50, 51, 'I', CHECKER,
           "[checkReachability]: requestId=periodic_1 status=requestSent"},
          {"11-22 12:00:03.000", 50, 50, 'I', STORE,
           "[insertEndpoint]: action=newEntity entityId=plug endpointId=plug-eth"},
          {"11-22 12:00:04.000", 50, 50, 'I', STORE,
           "[removeEntity]: action=removedEntity entityId=plug endpointCount=1"},
          {"11-22 12:00:05.000", 50, 50, 'I', STORE,
           "[insertEndpoint]: action=newEntity entityId=plug endpointId=plug-eth"},
          {"11-22 12:00:06.000", 50, 50, 'I', STORE, "[clear]: action=cleared previousSize=1"},
          {"11-22 12:00:07.000", 50, 50, 'I', STORE,
           "[insertEndpoint]: action=newEntity entityId=plug endpointId=plug-eth"},
          {"11-22 12:00:08.000", 50, 50, 'D', STORE,
           "[isEntityReachable]: entityId=plug reachable=false reason=noDriverCapabilities"},
      });
  const CaptureTrace read = traceText(capture, "plug");
  ASSERT_TRUE(read.ok) << read.error;
  const auto cause = [&](const std::string& time) {
    const Micros when = resolveCaptureMoment(*parseCaptureMoment(time), read.trace).at;
    const std::vector<AnswerAtMoment> at = answersAt(read.trace, "plug", when);
    EXPECT_EQ(at.size(), 1u);
    EXPECT_NE(at.at(0).cause, nullptr) << time;
    std::string text = tools::answerName(at[0].span.answer) + std::string(" by ") +
                       causeText(*at[0].cause) + " at lines";
    for (const EvidenceLine& line : at[0].cause->lines) {
      text += " " + std::to_string(line.number);
    }
    return text;
  };
  const auto line = [&capture](const std::string& text) {
    return std::to_string(lineOf(capture, text));
  };
  EXPECT_EQ(cause("12:00:01.500"),
            "reachable by the result of cycle periodic_0 for plug-wifi at lines " +
                line("requestId=periodic_0 status") + " " + line("[processDiscoveredDevices]") +
                " " + line("endpointId=plug-wifi") + " " + line("[processReachabilityResults]") +
                " " + line("(becameReachable)"));
  EXPECT_EQ(cause("12:00:02.500"),
            "notCached by a cycle's sweep: the provider no longer named plug-wifi, and the cycle "
            "removed it at lines " +
                line("[performPeriodicUpdate]") + " " + line("[removeEndpoint]"));
  EXPECT_EQ(cause("12:00:03.500"),
            "reachable by the host's own record of plug-eth "
            "(updateEndpoints) at lines " +
                line("12:00:03.000"));
  EXPECT_EQ(cause("12:00:04.500"),
            "notCached by the host's removal of the entity (removeEntity) at lines " +
                line("[removeEntity]"));
  EXPECT_EQ(cause("12:00:06.500"),
            "notCached by the host emptying the cache (invalidate) at lines " + line("[clear]"));
  EXPECT_EQ(cause("12:00:08"),
            "unreachable by the store's answer to a query, as it logged it at lines " +
                line("[isEntityReachable]"));
}

// What a person reads: the answer, since when, the cause in words and the
// numbered lines; where no cache ran, the caches around the moment.
TEST(AnswerAtTest, PrintsTheAnswerWithItsNumberedLines) {
  const std::string capture = created("11-22 08:00:00.000", 700) +
                              plugFound("11-22 08:00:01.000", 700, 0) +
                              plugDropped("11-22 08:05:00.000", 700) +
                              render(Message{"11-22 08:09:00.000", 700, 700, 'I', FACADE,
                                             "[~ReachabilityCache]: event=cacheDestroyed "
                                             "cacheSize=1"},
                                     Form::THREADTIME);
  const CaptureTrace read = traceText(capture, "plug");
  ASSERT_TRUE(read.ok) << read.error;
  const auto print = [&](const std::string& time) {
    std::ostringstream out;
    const Micros when = resolveCaptureMoment(*parseCaptureMoment(time), read.trace).at;
    EXPECT_TRUE(printAnswerAt(read.trace, "plug", when, out));
    return out.str();
  };
  const uint64_t event = lineOf(capture, "[stateChangeCallback]");
  EXPECT_EQ(print("08:06"),
            "plug at 11-22 08:06:00.000:\n"
            "  cache 1 (pid 700): isEntityReachable answered unreachable, since 11-22 "
            "08:05:00.000\n"
            "  Because of a connectivity event for plug-wifi:\n"
            "    line " +
                std::to_string(event) + ": " + linesOf(capture)[event - 1] +
                "\n"
                "    line " +
                std::to_string(event + 1) + ": " + linesOf(capture)[event] +
                "\n"
                "    line " +
                std::to_string(event + 2) + ": " + linesOf(capture)[event + 1] +
                "\n"
                "  Listeners were last told unreachable (plug-wifi) at 11-22 08:05:00.000.\n");
  EXPECT_EQ(print("08:10"),
            "plug at 11-22 08:10:00.000:\n"
            "  No cache of the capture was running then. cache 1 (pid 700) was destroyed at "
            "11-22 08:09:00.000. The capture tells nothing later.\n");
  std::ostringstream none;
  EXPECT_FALSE(printAnswerAt(read.trace, "lamp", 0, none)) << "no cache knows the lamp";
}

}  // namespace
}  // namespace veranda::reachabilityCache::trace::testing
