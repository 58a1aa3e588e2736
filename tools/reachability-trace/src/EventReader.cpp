#include "EventReader.h"

namespace veranda::reachabilityCache::trace {

void EventReader::checkerLine(const CacheMessage& in) {
  if (in.line.label != "stateChangeCallback" || !in.line.has("action", "invokingCallback")) {
    return;
  }
  ++in.cache.eventsReceived;
  if (keepEventLines_) {
    lastEvent_[std::string(in.line.get("endpointId").value_or(""))] = in.message.lines.front();
  }
}

const std::string* EventReader::lastEventLine(std::string_view endpointId) const {
  const auto event = lastEvent_.find(std::string(endpointId));
  return event == lastEvent_.end() ? nullptr : &event->second;
}

}  // namespace veranda::reachabilityCache::trace
