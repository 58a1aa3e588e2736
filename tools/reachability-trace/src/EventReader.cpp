#include "EventReader.h"
#include "diagnostics/LogSchema.h"

namespace veranda::reachabilityCache::trace {

using namespace logSchema;  // the names the lines are read with

void EventReader::checkerLine(const CacheMessage& in) {
  if (in.line.label != label::STATE_CHANGE_CALLBACK ||
      !in.line.has(key::ACTION, action::INVOKING_CALLBACK)) {
    return;
  }
  ++in.cache.eventsReceived;
  if (keepEventLines_) {
    lastEvent_[std::string(in.line.get(key::ENDPOINT_ID).value_or(""))] = in.message.lines.front();
  }
}

const std::string* EventReader::lastEventLine(std::string_view endpointId) const {
  const auto event = lastEvent_.find(std::string(endpointId));
  return event == lastEvent_.end() ? nullptr : &event->second;
}

}  // namespace veranda::reachabilityCache::trace
