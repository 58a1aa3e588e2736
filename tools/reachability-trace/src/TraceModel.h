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

// A line of the capture: its number (the first line is 1, counted in the
// text as read: unpacked and decoded) and its text, which the causes and
// changes that show the same line share.
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
  static constexpr uint16_t NO_ADAPTER = UINT16_MAX;
  static constexpr uint32_t OTHER_ENDPOINT = UINT32_MAX;  // past the entity's limit

  Micros at = NO_TIME;
  uint64_t message = 0;           // the number of the message that told it
  uint32_t endpoint = 0;          // in the entity's endpoints
  uint16_t adapter = NO_ADAPTER;  // in the entity's adapters, where a summary names it
  bool reachable = false;
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
  LEFT_OUT,       // a line about it was past the trace's limits
};

// The name scripts read ("captureStart", "summaryCut", "linesDropped",
// "contradicted", "ambiguous", "leftOut"; "" for NONE) and a few words a
// person reads ("capture start", "summary cut", "lines dropped", "lines
// missing", "ambiguous line", "past the limits").
const char* unknownReasonName(UnknownReason reason);
const char* unknownReasonWords(UnknownReason reason);

// What made an entity's answer what it is.
enum class CauseKind : uint8_t {
  CHECK,              // the result of a periodic cycle or of a manual check
  EVENT,              // a connectivity event the driver reported
  SWEEP,              // a cycle removed the endpoint: the provider no longer named it
  HOST_RECORD,        // the host's own record of the endpoint (updateEndpoints)
  HOST_REMOVAL,       // the host removed the entity
  HOST_INVALIDATION,  // the host emptied the cache (invalidate)
  QUERY,              // the store's answer to a query, as it logged it
  LOST,               // the lines do not tell it: the answer's reason says why
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
  bool inferred = false;  // REACHABLE rests on a check's or the host's record alone
  UnknownReason reason = UnknownReason::NONE;  // for UNKNOWN
  uint64_t message = 0;                        // the number of the message that told it
  uint32_t cause = NO_CAUSE;                   // in the entity's causes, where evidence is kept
};

// An entity's figures over its final answers (those no later line can
// take back), gathered as they become final.
struct AnswerTally {
  uint64_t flaps = 0;  // reachable to unreachable
  Micros unreachable = 0;
  Micros unknown = 0;
  std::optional<AnswerRecord> open;  // the last final answer, whose span goes on
};

struct EntityRecord {
  std::string id;
  std::vector<std::string> endpoints;  // in order of first appearance, up to the limit
  std::vector<std::string> adapters;
  std::vector<ChangeRecord> changes;  // the first ones, up to the limit
  // Each change of the answer in capture order: the final ones kept (up to
  // the limit), then those a later line may still take back.
  std::vector<AnswerRecord> answers;
  std::size_t settled = 0;   // answers[0, settled) are final
  uint64_t changeCount = 0;  // kept or not
  uint64_t changesLeftOut = 0;
  uint64_t answersLeftOut = 0;
  Micros answersLeftOutFrom = NO_TIME;  // the time of the first answer left out
  std::size_t answersGap = 0;           // where in `answers` those left out were
  AnswerTally tally;
  // Per kept change, the lines that caused it, where evidence is kept (for
  // --entity's entity, or every entity's for the page).
  std::vector<std::vector<EvidenceLine>> evidence;
  std::vector<AnswerCause> causes;  // of the answers, where evidence is kept

  // The index of `endpointId` among the endpoints, added when new and
  // there is room; OTHER_ENDPOINT past the limit.
  uint32_t endpointIndex(std::string_view endpointId, std::size_t limit);
  uint16_t adapterIndex(std::string_view adapterName, std::size_t limit);
  std::string_view endpointOf(const ChangeRecord& change) const;
  std::string_view adapterOf(const ChangeRecord& change) const;
};

// A problem keeps the times of its first MAX_PROBLEM_TIMES occurrences.
inline constexpr std::size_t MAX_PROBLEM_TIMES = 4096;

struct ProblemRecord {
  uint64_t count = 0;
  Micros first = NO_TIME;
  std::vector<Micros> times;  // the first occurrences', for marks on the page
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
  std::vector<CheckRecord> cycles;        // up to the limit
  std::vector<CheckRecord> manualChecks;  // up to the limit
  uint64_t cyclesLeftOut = 0;             // past the limit: counted only
  uint64_t manualChecksLeftOut = 0;
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
  // The entity with `id`, or null.
  EntityRecord* findEntity(std::string_view id);
  const EntityRecord* findEntity(std::string_view id) const;
  // From creation (or the first line seen) to destruction (or the last).
  Micros startTime() const { return creationSeen ? created : firstSeen; }
  Micros endTime() const { return destructionSeen ? destroyed : lastSeen; }
};

// What the trace keeps in memory, all caches together. Past these it counts
// what it leaves out, so that memory stays bounded whatever the capture.
// Together they keep the trace under 32 MB.
struct TraceLimits {
  std::size_t caches = 1000;
  std::size_t entities = 10000;
  std::size_t endpointsPerEntity = 64;  // followed and named per entity
  std::size_t checks = 20000;           // listed, cycles and manual checks together
  std::size_t pendingChecks = 4096;     // per cache: checks awaiting their answer
  std::size_t answers = 200000;         // kept for --json and the picture
  std::size_t changes = 200000;         // kept for --json, the picture's marks and stories
  std::size_t storyChanges = 10000;     // kept with their lines for --entity
};

// What the limits left out.
struct LeftOut {
  uint64_t processLines = 0;   // lines of processes past the caches' limit
  uint64_t entityLines = 0;    // lines about entities past the entities' limit
  uint64_t endpointLines = 0;  // lines about endpoints past an entity's limit
  uint64_t checks = 0;         // counted, not listed
  uint64_t pendingChecks = 0;  // forgotten before their answer came: not joined
  uint64_t answers = 0;        // not listed; the figures count them
  uint64_t changes = 0;
  uint64_t storyChanges = 0;

  bool any() const {
    return processLines + entityLines + endpointLines + checks + pendingChecks + answers + changes +
               storyChanges >
           0;
  }
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
  TraceLimits limits;
  LeftOut leftOut;
  std::size_t keptEntities = 0;  // what the limits count, kept so far
  std::size_t keptChecks = 0;
  std::size_t keptAnswers = 0;
  std::size_t keptChanges = 0;
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
  // Evidence for every entity is kept up to a budget: none from here on.
  Micros evidenceLostFrom = NO_TIME;
  TraceWindow window;  // what the trace tells about; open for the whole capture
};

// The entity `id` of `cache`, added when new and the limits leave room
// (`always`: whatever the limits, for the entity whose story is told); null
// when it is past them.
EntityRecord* trackedEntity(Trace& trace, CacheRecord& cache, std::string_view id, bool always);

// Makes the entity's answers up to message `upTo` final, but not its last
// one (`all`: every one): they join its tally, and stay listed while the
// limits leave room.
void settleAnswers(Trace& trace, EntityRecord& entity, uint64_t upTo, bool all);

// Adds the span of `answer` that ends at `end` to `tally`.
void tallySpan(AnswerTally& tally, const AnswerRecord& answer, Micros end);

}  // namespace veranda::reachabilityCache::trace
