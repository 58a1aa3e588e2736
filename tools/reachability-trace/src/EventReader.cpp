#include "EventReader.h"

namespace veranda::reachabilityCache::trace {

void EventReader::checkerLine(const CacheMessage& in) {
  if (in.line.label == "stateChangeCallback" && in.line.has("action", "invokingCallback")) {
    ++in.cache.eventsReceived;
  }
}

}  // namespace veranda::reachabilityCache::trace
