#include "TraceModel.h"

namespace veranda::reachabilityCache::trace {

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
