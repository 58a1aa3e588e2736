// What isEntityReachable answered for an entity at a moment of a capture,
// and the lines that made it so.
#pragma once

#include <cstddef>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "TraceModel.h"
#include "TraceOutput.h"

namespace veranda::reachabilityCache::trace {

// The answer of one cache that was running at the moment: the span of the
// entity's answers (as the report and the pictures draw them) that holds it.
struct AnswerAtMoment {
  std::size_t cache = 0;                 // its index in the trace
  const EntityRecord* entity = nullptr;  // null where the cache never named it
  EntitySpan span;                       // span.record: null before the entity's first line
  const AnswerCause* cause = nullptr;    // null where its lines were not kept
  std::optional<EntitySpan> next;        // the next span, if any
  const ChangeRecord* told = nullptr;    // the last change told to listeners by then
};

// What the lines cannot say by themselves, where listeners heard otherwise
// than isEntityReachable answers.
inline constexpr const char* UNCONFIRMED_NOTE =
    "An event's result carries no capabilities: isEntityReachable answers no until a check "
    "confirms the endpoint.";
inline constexpr const char* REMOVAL_NOTE =
    "Listeners are not told when an entity leaves the cache.";

// The answers of the caches running at `at` (in capture order). Before the
// entity's first line, a cache created in the capture answers "not cached"
// and one already running when the capture starts "unknown"; where the
// lines do not tell, the answer is unknown with its reason, never a guess.
std::vector<AnswerAtMoment> answersAt(const Trace& trace, const std::string& entityId, Micros at);

// What made the answer so, in words: "the result of cycle periodic_3,
// applied to plug-wifi". Empty for an answer without a cause.
std::string causeText(const AnswerCause& cause);

// Prints the answers at `at` with the lines behind each, or why there is
// none, made safe for a terminal. False when no cache of the capture knows
// the entity.
bool printAnswerAt(const Trace& trace, const std::string& entityId, Micros at, std::ostream& out);

}  // namespace veranda::reachabilityCache::trace
