// Reads a cache's connectivity events: those the checker passes on to it.
#pragma once

#include "CacheMessage.h"

namespace veranda::reachabilityCache::trace {

// One per cache; not thread-safe.
class EventReader {
 public:
  // The checker's lines about an event.
  void checkerLine(const CacheMessage& in);
};

}  // namespace veranda::reachabilityCache::trace
