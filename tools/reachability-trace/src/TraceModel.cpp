#include "TraceModel.h"

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
    case UnknownReason::NONE:
      break;
  }
  return "";
}

uint64_t CacheRecord::seenChanges() const {
  uint64_t seen = 0;
  for (const EntityRecord& entity : entities) {
    seen += entity.changes.size();
  }
  return seen;
}

uint64_t CacheRecord::unseenChanges() const {
  const uint64_t seen = seenChanges();
  return changes > seen ? changes - seen : 0;
}

EntityRecord& CacheRecord::entity(std::string_view id) {
  const std::string key(id);
  const auto found = entityIndex.find(key);
  if (found != entityIndex.end()) {
    return entities[found->second];
  }
  entityIndex.emplace(key, entities.size());
  entities.push_back({});
  entities.back().id = key;
  return entities.back();
}

}  // namespace veranda::reachabilityCache::trace
