// What a capture tells about each cache: its configuration and life, its
// checks, its entities' changes and its problems.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "Answer.h"
#include "CaptureClock.h"

namespace veranda::reachabilityCache::trace {

// Kinds of problem, as the JSON output names them.
inline constexpr const char* CACHE_FULL = "cacheFull";
inline constexpr const char* INSERT_FAILED = "insertFailed";
inline constexpr const char* CHECK_START_FAILED = "checkStartFailed";
inline constexpr const char* SUBSCRIPTION_FAILED = "subscriptionFailed";
inline constexpr const char* PROVIDER_NULL = "chrProviderNull";
inline constexpr const char* PROVIDER_EMPTY = "chrQueryReturnedEmpty";
inline constexpr const char* DUPLICATE_CHAIN = "duplicatePeriodicChain";
inline constexpr const char* UNKNOWN_ENDPOINT = "unknownEndpointEvent";
inline constexpr const char* INTERVAL_DRIFT = "intervalDrift";
inline constexpr const char* SUMMARY_CUT = "summaryCut";

// A line of the capture: its number (the first line is 1) and its text,
// which the causes and changes that show the same line share.
struct EvidenceLine {
  uint64_t number = 0;
  std::shared_ptr<const std::string> text;
};

// One reachability check: a periodic cycle or a manual trigger.
struct CheckRecord {
  std::string requestId;  // empty for a cycle whose provider answered nothing
  Micros start = NO_TIME;
  std::optional<uint64_t> endpointCount;
  bool started = false;        // the driver took the request
  bool startFailed = false;    // checkStartFailed
  bool providerEmpty = false;  // the provider named no endpoint: nothing to check
  bool answered = false;
  Micros answeredAt = NO_TIME;
  std::optional<uint64_t> resultCount;
  bool summarised = false;  // its result summary was found
  uint64_t reachable = 0;
  uint64_t unreachable = 0;
  uint64_t changed = 0;
  // Kept only where evidence is: the first line that named the check, and
  // its answer's.
  EvidenceLine startLine;
  EvidenceLine answerLine;
};

// A change told to listeners.
struct ChangeRecord {
  Micros at = NO_TIME;
  std::string endpointId;
  std::string adapterName;  // where a summary names it
  bool reachable = false;
  std::vector<EvidenceLine> evidence;  // where evidence is kept, in capture order
};

// What isEntityReachable answers for an entity from `at` on, as the lines
// tell it: an entity is reachable while one of its endpoints is, by a check's
// answer or the host's own record; an event alone does not make it so. Where
// a cut summary lost an entity's entry and no notification line tells, its
// answer is unknown until the next line about it.
using tools::Answer;

// What made an entity's answer change.
enum class CauseKind {
  CHECK,              // the result of a periodic cycle or of a manual check
  EVENT,              // a connectivity event the driver reported
  SWEEP,              // a cycle removed the endpoint: the provider no longer named it
  HOST_RECORD,        // the host's own record of the endpoint (updateEndpoints)
  HOST_REMOVAL,       // the host removed the entity
  HOST_INVALIDATION,  // the host emptied the cache (invalidate)
  QUERY,              // the store's answer to a query, as it logged it
  SUMMARY_CUT,        // the platform cut a result summary, the entity's entry with it
};

// A cause with the capture's lines that tell it, in capture order.
struct AnswerCause {
  CauseKind kind = CauseKind::HOST_RECORD;
  std::string requestId;   // the check's, for CHECK
  std::string endpointId;  // the endpoint whose line told it, if one did
  std::vector<EvidenceLine> lines;
};

inline constexpr uint32_t NO_CAUSE = UINT32_MAX;

struct AnswerRecord {
  Micros at = NO_TIME;
  Answer answer = Answer::ABSENT;
  uint32_t cause = NO_CAUSE;  // in the entity's causes, where evidence is kept
  uint64_t message = 0;       // the number of the message that told it
};

struct EntityRecord {
  std::string id;
  std::vector<ChangeRecord> changes;
  std::vector<AnswerRecord> answers;  // each change of the answer, in capture order
  std::vector<AnswerCause> causes;    // of the answers, where evidence is kept
  std::set<std::string> endpoints;
  std::set<std::string> adapters;
};

// A problem keeps the times of its first MAX_PROBLEM_TIMES occurrences.
inline constexpr std::size_t MAX_PROBLEM_TIMES = 4096;

struct ProblemRecord {
  uint64_t count = 0;
  Micros first = NO_TIME;
  std::vector<Micros> times;  // the first occurrences', for marks on the page
};

struct CacheRecord {
  std::optional<int> pid;
  Micros firstSeen = NO_TIME;
  Micros lastSeen = NO_TIME;
  bool creationSeen = false;
  Micros created = NO_TIME;
  bool destructionSeen = false;
  Micros destroyed = NO_TIME;
  std::optional<uint64_t> maxCacheSize;
  std::optional<uint64_t> storeCapacity;
  std::optional<bool> periodicUpdates;
  std::optional<int64_t> intervalSeconds;
  std::optional<int64_t> initialDelayMs;
  std::vector<CheckRecord> cycles;
  std::vector<CheckRecord> manualChecks;
  std::optional<std::string> callbackId;  // of the proactive subscription
  uint64_t eventsReceived = 0;            // connectivity events passed on by the checker
  uint64_t eventsApplied = 0;             // their result summaries
  std::vector<EntityRecord> entities;     // in order of first appearance
  std::unordered_map<std::string, std::size_t> entityIndex;
  std::map<std::string, ProblemRecord> problems;
  std::map<std::string, uint64_t> metrics;  // metric name -> count
  uint64_t changes = 0;                     // the sum of the summaries' "changed"

  // Changes the capture shows (from notification lines or summary entries).
  uint64_t seenChanges() const;
  // Changes told to listeners that the capture lost (cut summaries).
  uint64_t unseenChanges() const;
  // The entity with `id`, added at the end when the cache has none yet.
  EntityRecord& entity(std::string_view id);
  // From creation (or the first line seen) to destruction (or the last).
  Micros startTime() const { return creationSeen ? created : firstSeen; }
  Micros endTime() const { return destructionSeen ? destroyed : lastSeen; }
};

// A part of a capture's time line. Both ends belong to it; NO_TIME leaves
// that side open.
struct TraceWindow {
  Micros from = NO_TIME;
  Micros to = NO_TIME;

  bool limits() const { return from != NO_TIME || to != NO_TIME; }
  bool before(Micros at) const { return from != NO_TIME && at != NO_TIME && at < from; }
  bool after(Micros at) const { return to != NO_TIME && at != NO_TIME && at > to; }
  bool contains(Micros at) const { return !before(at) && !after(at); }
};

struct Trace {
  std::vector<CacheRecord> caches;
  uint64_t messages = 0;      // library and metric messages read
  uint64_t damagedLines = 0;  // lines naming the cache that could not be read
  uint64_t bytes = 0;
  bool bugReport = false;
  bool hasTime = false;  // the format gave clock readings
  CaptureClock clock;
  // Evidence for every entity is kept up to a budget: none from here on.
  Micros evidenceLostFrom = NO_TIME;
  TraceWindow window;  // what the trace tells about; open for the whole capture
};

}  // namespace veranda::reachabilityCache::trace
