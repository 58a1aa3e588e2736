// What a capture tells about each cache: its configuration and life, its
// checks, its entities' changes and its problems.
#pragma once

#include <cstdint>
#include <map>
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
  std::string answerLine;  // kept only for an entity's story
};

// A change told to listeners.
struct ChangeRecord {
  Micros at = NO_TIME;
  std::string endpointId;
  std::string adapterName;  // where a summary names it
  bool reachable = false;
  std::vector<std::string> evidence;  // kept only for an entity's story
};

// What isEntityReachable answers for an entity from `at` on, as the lines
// tell it: an entity is reachable while one of its endpoints is, by a check's
// answer or the host's own record; an event alone does not make it so. Where
// a cut summary lost an entity's entry and no notification line tells, its
// answer is unknown until the next line about it.
using tools::Answer;

struct AnswerRecord {
  Micros at = NO_TIME;
  Answer answer = Answer::ABSENT;
  uint64_t message = 0;  // the number of the message that told it
};

struct EntityRecord {
  std::string id;
  std::vector<ChangeRecord> changes;
  std::vector<AnswerRecord> answers;  // each change of the answer, in capture order
  std::set<std::string> endpoints;
  std::set<std::string> adapters;
};

struct ProblemRecord {
  uint64_t count = 0;
  Micros first = NO_TIME;
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

struct Trace {
  std::vector<CacheRecord> caches;
  uint64_t messages = 0;      // library and metric messages read
  uint64_t damagedLines = 0;  // lines naming the cache that could not be read
  uint64_t bytes = 0;
  bool bugReport = false;
  bool hasTime = false;  // the format gave clock readings
  CaptureClock clock;
};

}  // namespace veranda::reachabilityCache::trace
