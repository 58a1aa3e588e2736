// Works out what made each answer of a cache's entities change, with the
// lines that tell it: the check whose result was applied, the connectivity
// event, the cycle's sweep, the host's own change, a logged query, or the
// line that showed the capture lost what the answer was.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "CacheMessage.h"
#include "CheckReader.h"
#include "Evidence.h"

namespace veranda::reachabilityCache::trace {

// One per cache; does nothing where no evidence is kept. Not thread-safe.
class CauseReader {
 public:
  CauseReader(Evidence& evidence, const CheckReader& checks)
      : evidence_(evidence), checks_(checks) {}

  // Every message of the cache, before its other readers see it.
  void message(const CacheMessage& in);

  // Notes the cause of `answer`, which `in` tells for `entity` (through
  // `endpointId`, empty when none), among the entity's causes and returns
  // its index; NO_CAUSE where the entity keeps no evidence.
  uint32_t noteCause(const CacheMessage& in, EntityRecord& entity, std::string_view endpointId,
                     const AnswerRecord& answer);

  // Line `lineIndex` of `in`, a later line of the result being applied on
  // the message's thread about `entityId`: added to the causes this result
  // noted for the entity.
  void addLine(const CacheMessage& in, std::string_view entityId, std::size_t lineIndex = 0);

  // A result summary is being read: `check` is the check it reports, null
  // for an event's.
  void summaryOf(const CheckRecord* check) { summarised_ = check; }
  // The result summarised by `in` is applied: its causes take no more
  // lines. `eventEndpoints`: the endpoints of an event's result, whose
  // events are applied now.
  void resultApplied(const CacheMessage& in, const std::vector<std::string>& eventEndpoints);

  // The lines that started what `in` applies for `endpointId`: the check's
  // first line and its answer, or the endpoint's connectivity event; empty
  // when neither is known.
  std::vector<EvidenceLine> triggerOf(const CacheMessage& in, std::string_view endpointId) const;

 private:
  // The check whose result `in` applies, if any.
  const CheckRecord* checkOf(const CacheMessage& in) const;
  const EvidenceLine* pendingEvent(std::string_view endpointId) const;

  Evidence& evidence_;
  const CheckReader& checks_;
  // thread -> the cycle's line that asked the provider, until its check starts
  std::map<int64_t, EvidenceLine> sweeping_;
  // endpoint -> its connectivity events passed on but not yet applied
  std::unordered_map<std::string, std::deque<EvidenceLine>> events_;
  // thread -> (entity, cause) noted by the result being applied there
  std::map<int64_t, std::vector<std::pair<std::string, uint32_t>>> open_;
  const CheckRecord* summarised_ = nullptr;  // while its summary is read
};

}  // namespace veranda::reachabilityCache::trace
