// A message of the library together with the cache it belongs to: what each
// reader of a cache's lines is handed.
#pragma once

#include <cstdint>

#include "LibraryLine.h"
#include "LogMessage.h"
#include "TraceModel.h"

namespace veranda::reachabilityCache::trace {

struct CacheMessage {
  Trace& trace;
  CacheRecord& cache;
  const LogMessage& message;
  const LibraryLine& line;
  Micros at = NO_TIME;
  int64_t thread = -1;  // the message's thread, -1 where the format has none
  uint64_t number = 0;  // the message's number in the capture, from 1
  const std::string& storyEntity;

  // The cache's entity `id`, or null past the trace's limits.
  EntityRecord* entity(std::string_view id) const {
    return trackedEntity(trace, cache, id, !storyEntity.empty() && id == storyEntity);
  }
};

}  // namespace veranda::reachabilityCache::trace
