// What reachability-trace writes: the report for a person, one entity's
// story, the JSON document for scripts and the timeline picture.
#pragma once

#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "TimelinePicture.h"
#include "TraceModel.h"

namespace veranda::reachabilityCache::trace {

// The cache drawn unless the user names one: the last of the current boot.
std::size_t defaultCache(const Trace& trace);

// "cache 2 (pid 4242, LAST LOGCAT: the boot before)": the cache's number
// (`index` + 1), process and bug report section, made safe for a terminal.
std::string cacheName(const CacheRecord& cache, std::size_t index);

// An answer in words: "unreachable", "unknown (lines dropped)",
// "reachable (inferred)".
std::string answerText(const AnswerRecord& answer);
// What the words in brackets after an unknown answer mean; empty for NONE.
const char* unknownReasonMeaning(UnknownReason reason);

// Per cache: a summary, its problems, the entities with the most troubled
// first, and the cycles' statistics. Text from the capture is made safe for
// a terminal.
void printReport(const Trace& trace, std::ostream& out);

// Every change of `entityId` in every cache, each with the log lines that
// caused it. False when no cache knows the entity.
bool printEntityStory(const Trace& trace, const std::string& entityId, std::ostream& out);

// "the window from <from> to <to>" of a trace limited to one (with "the
// capture's start" or "end" for an open side); empty for a whole capture.
std::string windowText(const Trace& trace);

// What a kind of problem means, in words; empty for a kind it does not know.
const char* problemText(const std::string& kind);

// A line of evidence, indented, with its number in the capture, made safe
// for a terminal: "    line 128: <the line>".
void printEvidence(const EvidenceLine& line, std::ostream& out);

// The JSON document (one line, then a line feed), written as it goes.
void writeTraceJson(const Trace& trace, std::ostream& stream);
// The same, as a text.
std::string traceJson(const Trace& trace);

// The picture of one cache: a row per entity with its answers over time,
// grey while it is not in the cache, and a mark at each change told to
// listeners; the periodic cycles.
tools::TimelinePicture tracePicture(const Trace& trace, std::size_t cacheIndex,
                                    const std::string& captureName);

// The answer latency of the checks that were answered, in milliseconds,
// sorted; and the gaps between periodic cycles in seconds, sorted.
std::vector<double> answerLatenciesMs(const CacheRecord& cache);
std::vector<double> cycleGapsSeconds(const CacheRecord& cache);

// The nearest-rank percentile of `sorted` (not empty), `fraction` in (0, 1].
double percentile(const std::vector<double>& sorted, double fraction);

struct EntitySpan {
  Micros from = NO_TIME;
  Micros to = NO_TIME;
  Answer answer = Answer::ABSENT;
  bool inferred = false;
  UnknownReason reason = UnknownReason::NONE;
  // The entity's answer record that starts it; null before the first and
  // where answers past the limits were left out.
  const AnswerRecord* record = nullptr;
};

// What an entity of `cache` answered before its first answer record: absent
// when the capture holds the cache's creation, else unknown.
AnswerRecord answerBefore(const CacheRecord& cache);

// The entity's answers as spans from `start` to `end`, `before` until its
// first record; the answers that the limits left out as an unknown span.
std::vector<EntitySpan> entitySpans(const EntityRecord& entity, Micros start, Micros end,
                                    const AnswerRecord& before);

// Per entity: the changes told to listeners, the times its answer dropped
// from reachable to unreachable, the time it answered unreachable or unknown
// while the cache ran (from its first answer on), and its last answer.
struct EntityFigures {
  std::size_t changes = 0;
  std::size_t flaps = 0;
  double unreachableSeconds = 0;
  double unknownSeconds = 0;
  AnswerRecord last;
};
EntityFigures entityFigures(const EntityRecord& entity, Micros cacheEnd,
                            const AnswerRecord& before);

}  // namespace veranda::reachabilityCache::trace
