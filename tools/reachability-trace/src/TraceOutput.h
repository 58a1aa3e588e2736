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

// The JSON document (one line, then a line feed).
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
};

// The entity's answers as spans from `start` to `end`; absent before the
// first.
std::vector<EntitySpan> entitySpans(const EntityRecord& entity, Micros start, Micros end);

// Per entity: the changes told to listeners, the times its answer dropped
// from reachable to unreachable, the time it answered unreachable while in
// the cache, and its last answer.
struct EntityFigures {
  std::size_t changes = 0;
  std::size_t flaps = 0;
  double unreachableSeconds = 0;
  Answer last = Answer::ABSENT;
};
EntityFigures entityFigures(const EntityRecord& entity, Micros cacheEnd);

}  // namespace veranda::reachabilityCache::trace
