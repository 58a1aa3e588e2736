#include "TraceModel.h"

#include <algorithm>

#include "Saturating.h"

namespace veranda::reachabilityCache::trace {

const char* unknownReasonName(UnknownReason reason) {
  switch (reason) {
    case UnknownReason::CAPTURE_START:
      return "captureStart";
    case UnknownReason::SUMMARY_CUT:
      return "summaryCut";
    case UnknownReason::LINES_DROPPED:
      return "linesDropped";
    case UnknownReason::CONTRADICTED:
      return "contradicted";
    case UnknownReason::AMBIGUOUS:
      return "ambiguous";
    case UnknownReason::LEFT_OUT:
      return "leftOut";
    case UnknownReason::NONE:
      break;
  }
  return "";
}

const char* unknownReasonWords(UnknownReason reason) {
  switch (reason) {
    case UnknownReason::CAPTURE_START:
      return "capture start";
    case UnknownReason::SUMMARY_CUT:
      return "summary cut";
    case UnknownReason::LINES_DROPPED:
      return "lines dropped";
    case UnknownReason::CONTRADICTED:
      return "lines missing";
    case UnknownReason::AMBIGUOUS:
      return "ambiguous line";
    case UnknownReason::LEFT_OUT:
      return "past the limits";
    case UnknownReason::NONE:
      break;
  }
  return "";
}

uint64_t CacheRecord::seenChanges() const {
  uint64_t seen = 0;
  for (const EntityRecord& entity : entities) {
    seen += entity.changeCount;
  }
  return seen;
}

uint64_t CacheRecord::unseenChanges() const {
  const uint64_t seen = seenChanges();
  return changes > seen ? changes - seen : 0;
}

EntityRecord* CacheRecord::findEntity(std::string_view id) {
  const auto found = entityIndex.find(std::string(id));
  return found == entityIndex.end() ? nullptr : &entities[found->second];
}

const EntityRecord* CacheRecord::findEntity(std::string_view id) const {
  const auto found = entityIndex.find(std::string(id));
  return found == entityIndex.end() ? nullptr : &entities[found->second];
}

uint32_t EntityRecord::endpointIndex(std::string_view endpointId, std::size_t limit) {
  const auto found = std::find(endpoints.begin(), endpoints.end(), endpointId);
  if (found != endpoints.end()) {
    return static_cast<uint32_t>(found - endpoints.begin());
  }
  if (endpoints.size() >= limit) {
    return ChangeRecord::OTHER_ENDPOINT;
  }
  endpoints.emplace_back(endpointId);
  return static_cast<uint32_t>(endpoints.size() - 1);
}

uint16_t EntityRecord::adapterIndex(std::string_view adapterName, std::size_t limit) {
  const auto found = std::find(adapters.begin(), adapters.end(), adapterName);
  if (found != adapters.end()) {
    return static_cast<uint16_t>(found - adapters.begin());
  }
  if (adapters.size() >= std::min<std::size_t>(limit, ChangeRecord::NO_ADAPTER)) {
    return ChangeRecord::NO_ADAPTER;
  }
  adapters.emplace_back(adapterName);
  return static_cast<uint16_t>(adapters.size() - 1);
}

std::string_view EntityRecord::endpointOf(const ChangeRecord& change) const {
  return change.endpoint < endpoints.size() ? std::string_view(endpoints[change.endpoint])
                                            : std::string_view("(another endpoint)");
}

std::string_view EntityRecord::adapterOf(const ChangeRecord& change) const {
  return change.adapter < adapters.size() ? std::string_view(adapters[change.adapter])
                                          : std::string_view();
}

EntityRecord* trackedEntity(Trace& trace, CacheRecord& cache, std::string_view id, bool always) {
  if (EntityRecord* found = cache.findEntity(id)) {
    return found;
  }
  if (!always && trace.keptEntities >= trace.limits.entities) {
    ++trace.leftOut.entityLines;
    return nullptr;
  }
  ++trace.keptEntities;
  cache.entityIndex.emplace(std::string(id), cache.entities.size());
  cache.entities.push_back({});
  cache.entities.back().id = std::string(id);
  return &cache.entities.back();
}

void tallySpan(AnswerTally& tally, const AnswerRecord& answer, Micros end) {
  if (answer.at == NO_TIME || end == NO_TIME || end < answer.at) {
    return;
  }
  const Micros span = saturatingSub(end, answer.at);
  if (answer.answer == Answer::UNREACHABLE) {
    tally.unreachable = saturatingAdd(tally.unreachable, span);
  } else if (answer.answer == Answer::UNKNOWN) {
    tally.unknown = saturatingAdd(tally.unknown, span);
  }
}

void settleAnswers(Trace& trace, EntityRecord& entity, uint64_t upTo, bool all) {
  std::vector<AnswerRecord>& answers = entity.answers;
  std::size_t next = entity.settled;
  while (next < answers.size() &&
         (all || (next + 1 < answers.size() && answers[next].message <= upTo))) {
    const AnswerRecord& answer = answers[next];
    AnswerTally& tally = entity.tally;
    if (tally.open) {
      tallySpan(tally, *tally.open, answer.at);
      tally.flaps +=
          tally.open->answer == Answer::REACHABLE && answer.answer == Answer::UNREACHABLE ? 1 : 0;
    }
    tally.open = answer;
    // The last answer is always kept: pictures end with what it was.
    if (trace.keptAnswers < trace.limits.answers || next + 1 == answers.size()) {
      ++trace.keptAnswers;
      answers[entity.settled++] = answer;
    } else {
      if (entity.answersLeftOut == 0) {
        entity.answersLeftOutFrom = answer.at;
        entity.answersGap = entity.settled;
      }
      ++entity.answersLeftOut;
      ++trace.leftOut.answers;
    }
    ++next;
  }
  answers.erase(answers.begin() + static_cast<std::ptrdiff_t>(entity.settled),
                answers.begin() + static_cast<std::ptrdiff_t>(next));
}

}  // namespace veranda::reachabilityCache::trace
