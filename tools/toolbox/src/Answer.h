// What isEntityReachable answers for an entity, as both tools tell it: the
// simulator from the cache itself, the trace tool from a log capture.
#pragma once

namespace veranda::reachabilityCache::tools {

// ABSENT: the entity is not in the cache; UNKNOWN: a capture does not tell
// (the simulator always knows).
enum class Answer { ABSENT, REACHABLE, UNREACHABLE, UNKNOWN };

// The name scripts read: "notCached", "reachable", "unreachable" or
// "unknown".
const char* answerName(Answer answer);

// The words a person reads: "not cached", "reachable", "unreachable" or
// "unknown".
const char* answerWords(Answer answer);

}  // namespace veranda::reachabilityCache::tools
