#include "EventReader.h"
#include "diagnostics/LogSchema.h"

namespace veranda::reachabilityCache::trace {

using namespace logSchema;  // the names the lines are read with

void EventReader::checkerLine(const CacheMessage& in) {
  if (in.line.label == label::STATE_CHANGE_CALLBACK &&
      in.line.has(key::ACTION, action::INVOKING_CALLBACK)) {
    ++in.cache.eventsReceived;
  }
}

}  // namespace veranda::reachabilityCache::trace
