// Reads a cache's checks from its lines: the periodic cycles and the manual
// checks, each joined by its request id from start to answer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "CacheMessage.h"
#include "Evidence.h"

namespace veranda::reachabilityCache::trace {

// One per cache; not thread-safe.
class CheckReader {
 public:
  // Where `evidence` keeps any, each check keeps its first line and its
  // answer's.
  explicit CheckReader(Evidence& evidence) : evidence_(evidence) {}

  // The updater's lines about the periodic chain and the checks it starts.
  void updaterLine(const CacheMessage& in);
  // The checker's lines about a check: its request and its answer.
  void checkerLine(const CacheMessage& in);

  // The check whose answer is being applied on `thread`, if any.
  const CheckRecord* answering(const CacheRecord& cache, int64_t thread) const;
  // True for the updater's own thread, which runs its cycles and applies
  // connectivity events, once a cycle has named it.
  bool isUpdaterThread(int64_t thread) const { return updaterThreads_.count(thread) > 0; }

  // The check whose result summary `in` is, no longer awaited; null for an
  // event's summary. Without thread ids an event's summary may come between
  // a check's answer and its summary: the check's own lists every result
  // (`entries` of them), unless the platform `cut` it.
  CheckRecord* takeSummarised(const CacheMessage& in, bool cut, std::size_t entries);

 private:
  // A check as the cache's record lists it: (periodic, index in its list,
  // or UNLISTED past the trace's limits).
  using Place = std::pair<bool, std::size_t>;
  static constexpr std::size_t UNLISTED = SIZE_MAX;

  // The check with `requestId`, made when its first line is seen; past the
  // limits, a record of its own that no output lists.
  CheckRecord& check(const CacheMessage& in, std::string_view requestId);
  CheckRecord& recordAt(CacheRecord& cache, Place place);
  void periodicUpdate(const CacheMessage& in);

  Evidence& evidence_;
  bool periodicRunning_ = false;
  std::optional<uint64_t> nextEndpointCount_;      // told before the cycle's request id
  std::unordered_map<std::string, Place> checks_;  // those a line may still name
  std::deque<std::string> order_;                  // their ids, oldest first
  CheckRecord unlisted_;
  std::map<int64_t, Place> answers_;  // thread -> check awaiting its summary
  std::set<int64_t> updaterThreads_;
};

}  // namespace veranda::reachabilityCache::trace
