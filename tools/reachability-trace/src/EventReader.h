// Reads a cache's connectivity events: those the checker passes on to it.
#pragma once

#include <string>
#include <string_view>
#include <unordered_map>

#include "CacheMessage.h"

namespace veranda::reachabilityCache::trace {

// One per cache; not thread-safe.
class EventReader {
 public:
  // `keepEventLines`: keep each endpoint's last event line, for a story.
  explicit EventReader(bool keepEventLines) : keepEventLines_(keepEventLines) {}

  // The checker's lines about an event.
  void checkerLine(const CacheMessage& in);

  // The line of the last event passed on for `endpointId`, if kept.
  const std::string* lastEventLine(std::string_view endpointId) const;

 private:
  bool keepEventLines_;
  std::unordered_map<std::string, std::string> lastEvent_;  // endpoint -> line
};

}  // namespace veranda::reachabilityCache::trace
