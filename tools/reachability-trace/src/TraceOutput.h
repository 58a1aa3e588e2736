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

// The JSON document (one line, then a line feed).
std::string traceJson(const Trace& trace);

// The picture of one cache: a row per entity with the states listeners were
// told, grey while it is not in the cache; the periodic cycles.
tools::TimelinePicture tracePicture(const Trace& trace, std::size_t cacheIndex,
                                    const std::string& captureName);

// The answer latency of the checks that were answered, in milliseconds,
// sorted; and the gaps between periodic cycles in seconds, sorted.
std::vector<double> answerLatenciesMs(const CacheRecord& cache);
std::vector<double> cycleGapsSeconds(const CacheRecord& cache);

// What listeners were last told about an entity while it was in the cache.
enum class ToldState { kAbsent, kReachable, kUnreachable };

struct EntitySpan {
  Micros from = kNoTime;
  Micros to = kNoTime;
  ToldState state = ToldState::kAbsent;
};

// The entity's spans from `start` to `end`: absent until it enters the
// cache (or is first told about), then as its changes and departures say.
std::vector<EntitySpan> entitySpans(const EntityRecord& entity, Micros start, Micros end);

// Per entity: the time it spent unreachable (told so, while in the cache)
// and the number of times it dropped from reachable to unreachable.
struct EntityFigures {
  std::size_t changes = 0;
  std::size_t flaps = 0;
  double unreachableSeconds = 0;
  std::optional<bool> lastReachable;
};
EntityFigures entityFigures(const EntityRecord& entity, Micros cacheEnd);

}  // namespace veranda::reachabilityCache::trace
