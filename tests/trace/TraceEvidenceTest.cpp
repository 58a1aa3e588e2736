// reachability-trace never reports an answer that a line of the capture
// contradicts, whatever part of the log the capture holds; and where it
// holds everything, it tells what the simulator's own tracker saw.
#include <gtest/gtest.h>

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "LibraryLine.h"
#include "LogMessage.h"
#include "SimCaptures.h"
#include "TraceOutput.h"

namespace veranda::reachabilityCache::trace::testing {
namespace {

// A flapping generated home, in virtual time, with the tracker's column.
const char* const HOME = "--devices 30 --duration 6 --interval 1 --flap-rate 30 --fast --tracker";

// What a line of the library states about an entity's answer: at the
// message numbered `message` (as the trace counts them, from 1), or, with
// `before`, just before it.
struct Fact {
  uint64_t message;
  std::string entity;
  bool reachable;
  bool before;
  std::string text;
};

bool isSummary(const Message& message) {
  return message.text.rfind("[processReachabilityResults]", 0) == 0;
}

// The facts of a summary the platform did not cut: after each entity's last
// entry, where its status tells the answer after it (for an entity of one
// endpoint, `single`, every status does, the simulator's driver types all
// reaching); and before each entity's first entry, where it stands before
// the result's own lines (`firstOwnLine` gives where those begin).
void summaryFacts(const Message& message, uint64_t number,
                  const std::map<std::string, uint64_t>& firstOwnLine,
                  const std::set<std::string>& single, std::vector<Fact>& facts) {
  const std::optional<LibraryLine> line = parseLibraryLine(message.text);
  if (!line || message.text.size() >= MAX_MESSAGE_BYTES) {
    return;
  }
  std::map<std::string, SummaryEntry> last;
  std::set<std::string> seen;
  const std::string_view details = line->get("details").value_or("");
  for (std::size_t from = details.find('\n'); from != std::string_view::npos;) {
    const std::size_t to = details.find('\n', from + 1);
    const std::optional<SummaryEntry> entry = parseSummaryEntry(
        details.substr(from + 1, to == std::string_view::npos ? to : to - from - 1));
    from = to;
    if (!entry || entry->entityId.empty()) {
      continue;
    }
    const std::string entity(entry->entityId);
    if (seen.insert(entity).second && !entry->insertFailed) {
      const auto own = firstOwnLine.find(entity);
      facts.push_back({own == firstOwnLine.end() ? number : own->second, entity,
                       entry->reachable != entry->changed, true, message.text});
    }
    last[entity] = *entry;
  }
  for (const auto& [entity, entry] : last) {
    const bool kept = !entry.changed && !entry.insertFailed;  // the answer stays what it was
    // An event adds no driver type: an entity it marks reachable still answers
    // unreachable.
    const bool eventUp = entry.reachable && entry.changed && entry.adapterName.empty();
    if (eventUp) {
      facts.push_back({number, entity, false, false, message.text});
    } else if (kept || (entry.changed && single.count(entity) > 0)) {
      facts.push_back({number, entity, entry.reachable, false, message.text});
    }
  }
}

// Every fact that the lines of `messages` state. Before-facts only where
// the result's store lines are all info lines (`infoOnly`): with debug
// lines, other threads' lines may come between.
std::vector<Fact> explicitFacts(const std::vector<Message>& messages, bool infoOnly,
                                const std::set<std::string>& single) {
  std::vector<Fact> facts;
  std::map<int, std::map<std::string, uint64_t>> ownLines;  // thread -> entity -> first line
  for (std::size_t i = 0; i < messages.size(); ++i) {
    const Message& message = messages[i];
    const uint64_t number = i + 1;
    const std::optional<LibraryLine> line = parseLibraryLine(message.text);
    if (!line) {
      continue;
    }
    if (line->label == "isEntityReachable" && line->get("entityId")) {
      facts.push_back({number, std::string(*line->get("entityId")), line->has("reachable", "true"),
                       false, message.text});
    } else if (line->label == "insertEndpoint" && line->get("action") && line->get("entityId")) {
      ownLines[message.tid].try_emplace(std::string(*line->get("entityId")), number);
    } else if (isSummary(message)) {
      std::vector<Fact> found;
      summaryFacts(message, number, ownLines[message.tid], single, found);
      for (const Fact& fact : found) {
        if (!fact.before || infoOnly) {
          facts.push_back(fact);
        }
      }
      ownLines.erase(message.tid);
    }
  }
  return facts;
}

// The entities with a single endpoint in all of `messages`.
std::set<std::string> singleEndpointEntities(const std::vector<Message>& messages) {
  std::map<std::string, std::set<std::string>> endpoints;
  for (const Message& message : messages) {
    std::size_t from = 0;
    while ((from = message.text.find('\n', from)) != std::string::npos) {
      const std::size_t to = message.text.find('\n', from + 1);
      const std::optional<SummaryEntry> entry =
          parseSummaryEntry(std::string_view(message.text).substr(from + 1, to - from - 1));
      if (entry) {
        endpoints[std::string(entry->entityId)].emplace(entry->endpointId);
      }
      from = to;
    }
  }
  std::set<std::string> single;
  for (const auto& [entity, ids] : endpoints) {
    if (ids.size() == 1) {
      single.insert(entity);
    }
  }
  return single;
}

// What the trace says the entity answered after (or, with `before`, just
// before) the message numbered `message`.
AnswerRecord answerAt(const CacheRecord& cache, const std::string& entity, uint64_t message,
                      bool before) {
  AnswerRecord answer = answerBefore(cache);
  const auto index = cache.entityIndex.find(entity);
  if (index == cache.entityIndex.end()) {
    return answer;
  }
  for (const AnswerRecord& record : cache.entities[index->second].answers) {
    if (record.message > message || (before && record.message == message)) {
      break;
    }
    answer = record;
  }
  return answer;
}

// The facts that the trace's answers contradict, one line each.
std::string contradictions(const CacheRecord& cache, const std::vector<Fact>& facts) {
  std::string found;
  for (const Fact& fact : facts) {
    const AnswerRecord answer = answerAt(cache, fact.entity, fact.message, fact.before);
    if (answer.answer != Answer::UNKNOWN &&
        (answer.answer == Answer::REACHABLE) != fact.reachable) {
      found += fact.entity + (fact.before ? " before" : " after") + " message " +
               std::to_string(fact.message) + ": trace says " + tools::answerName(answer.answer) +
               ", the line: " + fact.text.substr(0, 120) + "\n";
    }
  }
  return found;
}

// The trace's answers per entity as the tracker tells them: each change
// between reachable and not.
std::map<std::string, std::vector<bool>> answerChanges(const CacheRecord& cache) {
  std::map<std::string, std::vector<bool>> changes;
  for (const EntityRecord& entity : cache.entities) {
    bool reachable = false;
    for (const AnswerRecord& answer : entity.answers) {
      if ((answer.answer == Answer::REACHABLE) != reachable) {
        reachable = !reachable;
        changes[entity.id].push_back(reachable);
      }
    }
  }
  return changes;
}

TEST(TraceEvidenceTest, NeverContradictsALineWhateverPartOfTheLogTheCaptureHolds) {
  for (int seed = 1; seed <= 3; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    const SimOutput sim = runSimulator(std::string(HOME) + " --seed " + std::to_string(seed));
    const std::vector<Message> all = simMessages(sim.log);
    ASSERT_GT(all.size(), 500u);
    const std::set<std::string> single = singleEndpointEntities(all);
    const std::vector<Message> tail(all.begin() + static_cast<std::ptrdiff_t>(all.size() * 2 / 5),
                                    all.end());
    const struct {
      const char* name;
      std::vector<Message> messages;
      bool infoOnly;
    } captures[] = {
        {"whole", all, false},
        {"info lines", infoOnly(all), true},
        {"from the middle", tail, false},
        {"info lines from the middle", infoOnly(tail), true},
    };
    for (const auto& capture : captures) {
      SCOPED_TRACE(capture.name);
      const CaptureTrace read = traceText(deviceCapture(capture.messages));
      ASSERT_TRUE(read.ok) << read.error;
      ASSERT_EQ(read.trace.caches.size(), 1u);
      const CacheRecord& cache = read.trace.caches[0];
      const std::vector<Fact> facts = explicitFacts(capture.messages, capture.infoOnly, single);
      EXPECT_GT(facts.size(), 50u);
      EXPECT_EQ(contradictions(cache, facts), "");
    }

    // The whole log tells every change of every answer, as the tracker saw it.
    const CaptureTrace read = traceText(deviceCapture(all));
    const CacheRecord& whole = read.trace.caches.at(0);
    EXPECT_EQ(answerChanges(whole), trackedAnswers(sim.timeline));
    for (const EntityRecord& entity : whole.entities) {
      for (const AnswerRecord& answer : entity.answers) {
        EXPECT_NE(answer.answer, Answer::UNKNOWN) << entity.id;
      }
    }
  }
}

// The answers of `entity` in the only cache: "answer@message" each.
std::string history(const Trace& trace, const std::string& entity) {
  std::string text;
  const CacheRecord& cache = trace.caches.at(0);
  for (const AnswerRecord& answer : cache.entities.at(cache.entityIndex.at(entity)).answers) {
    text += std::string(text.empty() ? "" : " ") + tools::answerName(answer.answer) +
            (answer.inferred ? "(inferred)" : "") +
            (answer.reason != UnknownReason::NONE
                 ? std::string("(") + unknownReasonName(answer.reason) + ")"
                 : "") +
            "@" + std::to_string(answer.message);
  }
  return text;
}

Message line(const std::string& time, int tid, const char* tag, const std::string& text) {
  return {"11-22 12:00:" + time, 300, tid, 'I', tag, text};
}

// Captures that begin in the middle of a cache's life: nothing is known of an
// entity until a line tells, and what a line tells stands.
TEST(TraceEvidenceTest, ACaptureFromTheMiddleTellsOnlyWhatItsLinesSay) {
  const std::vector<Message> capture = {
      // The lamp has two endpoints; the capture names one.
      line("01.000", 8, STORE, "[isEntityReachable]: entityId=lamp reachable=true"),
      line("02.000", 9, UPDATER,
           "[processReachabilityResults]: reachable=0 unreachable=1 changed=1 details=\n"
           "    lamp-zb (entityId=lamp): unreachable (becameUnreachable)"),
      // The plug: one check finds it, an event drops it.
      line("03.000", 8, UPDATER,
           "[processReachabilityResults]: reachable=1 unreachable=0 changed=1 details=\n"
           "    plug-wifi (entityId=plug, adapter=PROT_WIFI-ADAPTER): reachable (becameReachable)"),
      line("04.000", 9, UPDATER,
           "[processReachabilityResults]: reachable=0 unreachable=1 changed=1 details=\n"
           "    plug-wifi (entityId=plug): unreachable (becameUnreachable)"),
      line("05.000", 8, STORE,
           "[isEntityReachable]: entityId=lamp reachable=false reason=noDriverCapabilities"),
      // An event's "becameReachable" merges no driver type that reaches.
      line("06.000", 9, UPDATER,
           "[processReachabilityResults]: reachable=1 unreachable=0 changed=1 details=\n"
           "    lamp-zb (entityId=lamp): reachable (becameReachable)"),
  };
  const CaptureTrace read = traceText(render(capture, Form::THREADTIME));
  ASSERT_TRUE(read.ok) << read.error;
  // Unknown before its first line; reachable by an endpoint the capture
  // never names, so whether it still is after lamp-zb went is unknown, until
  // a query tells.
  EXPECT_EQ(history(read.trace, "lamp"), "reachable@1 unknown(captureStart)@2 unreachable@5");
  // Its one check says it was not reachable before: so nothing else reaches.
  EXPECT_EQ(history(read.trace, "plug"), "reachable(inferred)@3 unreachable@4");
}

// A fact that contradicts what the earlier lines led to takes the answers
// back to unknown from the last fact on: lines are missing between.
TEST(TraceEvidenceTest, AnAnswerALaterLineContradictsIsTakenBack) {
  const std::vector<Message> capture = {
      {"11-22 12:00:00.000", 300, 300, 'I', FACADE,
       "[ReachabilityCache]: event=cacheCreated maxCacheSize=10 periodicUpdates=true"},
      line("01.000", 8, CHECKER,
           "[processDiscoveredDevices]: requestId=periodic_0 deviceCount=1 resultCount=1"),
      line("01.000", 8, STORE,
           "[insertEndpoint]: action=newEntity entityId=lamp endpointId=lamp-zb"),
      line("01.000", 8, UPDATER,
           "[processReachabilityResults]: reachable=1 unreachable=0 changed=1 details=\n"
           "    lamp-zb (entityId=lamp, adapter=PROT_ZIGBEE-ADAPTER): reachable (becameReachable)"),
      // The lines that cleared lamp-zb are missing; a later check says it
      // was not reachable before its own result.
      line("09.000", 8, CHECKER,
           "[processDiscoveredDevices]: requestId=periodic_1 deviceCount=1 resultCount=1"),
      line("09.000", 8, UPDATER,
           "[processReachabilityResults]: reachable=1 unreachable=0 changed=1 details=\n"
           "    lamp-zb (entityId=lamp, adapter=PROT_ZIGBEE-ADAPTER): reachable (becameReachable)"),
  };
  const CaptureTrace read = traceText(render(capture, Form::THREADTIME));
  ASSERT_TRUE(read.ok) << read.error;
  EXPECT_EQ(history(read.trace, "lamp"),
            "reachable(inferred)@4 unknown(contradicted)@4 reachable(inferred)@6");
  const CacheRecord& cache = read.trace.caches.at(0);
  const std::vector<AnswerRecord>& answers = cache.entities.at(0).answers;
  EXPECT_EQ(read.trace.clock.format(answers.at(1).at), "11-22 12:00:01.000")
      << "unknown from the last line that told it";
}

}  // namespace
}  // namespace veranda::reachabilityCache::trace::testing
