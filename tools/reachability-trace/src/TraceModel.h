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
  uint64_t message = 0;  // the number of the message that told it
  std::string endpointId;
  std::string adapterName;  // where a summary names it
  bool reachable = false;
  std::vector<std::string> evidence;  // kept only for an entity's story
};

// What isEntityReachable answers for an entity from `at` on, as the lines
// tell it. Every answer rests on lines: where they do not tell, the answer is
// unknown, and an answer that a later line contradicts is taken back (unknown
// from the last line that told it). A check's or the host's record is taken
// to make its endpoint reachable (the lines name no driver type): answers
// that rest on that are marked inferred.
using tools::Answer;

// Why an answer is unknown.
enum class UnknownReason : uint8_t {
  NONE,
  CAPTURE_START,  // the capture starts after the cache did: no line has told it yet
  SUMMARY_CUT,    // the platform cut a result summary that held its entry
  LINES_DROPPED,  // the platform's rate limiter dropped lines of the cache's process
  CONTRADICTED,   // a later line contradicts what the earlier ones told: lines are missing
  AMBIGUOUS,      // a line about it could also be read another way
};

// The name scripts read ("captureStart", "summaryCut", "linesDropped",
// "contradicted", "ambiguous"; "" for NONE) and a few words a person reads
// ("capture start", "summary cut", "lines dropped", "lines missing",
// "ambiguous line").
const char* unknownReasonName(UnknownReason reason);
const char* unknownReasonWords(UnknownReason reason);

struct AnswerRecord {
  Micros at = NO_TIME;
  Answer answer = Answer::ABSENT;
  bool inferred = false;  // REACHABLE rests on a check's or the host's record alone
  UnknownReason reason = UnknownReason::NONE;  // for UNKNOWN
  uint64_t message = 0;                        // the number of the message that told it
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

// A line that can be read two ways: an id that held a line feed or a
// " key=value" could have written it.
struct AmbiguousLine {
  Micros at = NO_TIME;
  std::string line;  // its first physical line, cut to a few hundred bytes
  std::string why;
};

struct CacheRecord {
  std::optional<int64_t> pid;
  std::string section;        // of a bug report ("SYSTEM LOG"); empty for a plain capture
  bool previousBoot = false;  // in a section of the boot before ("LAST LOGCAT")
  Micros firstSeen = NO_TIME;
  Micros lastSeen = NO_TIME;
  uint64_t firstMessage = 0;  // the numbers of its first and last messages
  uint64_t lastMessage = 0;
  std::optional<int64_t> replacedBy;  // the pid of the process that took over
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
  // The rate limiter's notices for the cache's process and the lines they
  // say it dropped ("expire") or collapsed ("identical").
  uint64_t rateLimitNotices = 0;
  uint64_t expiredLines = 0;
  uint64_t identicalLines = 0;
  Micros firstRateLimit = NO_TIME;
  uint64_t ambiguousLines = 0;
  std::vector<AmbiguousLine> ambiguous;  // the first few

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
  uint64_t messages = 0;       // library and metric messages read
  uint64_t damagedLines = 0;   // lines naming the cache that could not be read
  std::string firstDamaged;    // the first of them, cut to a few hundred bytes
  uint64_t bytes = 0;          // of text
  uint64_t nulBytes = 0;       // skipped
  uint64_t overLongLines = 0;  // naming the cache, too long to be a log line: skipped
  std::string archive;         // "zip" or "gzip"; empty for a text file
  std::string entry;           // the archive's entry read
  std::string encoding = "UTF-8";
  bool bugReport = false;
  bool hasTime = false;  // the format gave clock readings
  CaptureClock clock;
};

}  // namespace veranda::reachabilityCache::trace
