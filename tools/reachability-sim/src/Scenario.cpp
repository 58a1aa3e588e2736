#include "Scenario.h"

#include <algorithm>

namespace veranda::reachabilityCache::sim {

const char* actionName(Action action) {
  switch (action) {
    case Action::OFFLINE:
      return "offline";
    case Action::ONLINE:
      return "online";
    case Action::REMOVE:
      return "remove";
    case Action::ADD:
      return "add";
    case Action::PUSH:
      return "push";
  }
  return "?";
}

const Device* Scenario::findDevice(const std::string& endpointId) const {
  const auto found = std::find_if(devices.begin(), devices.end(), [&](const Device& device) {
    return device.endpointId == endpointId;
  });
  return found == devices.end() ? nullptr : &*found;
}

std::size_t Scenario::effectiveCacheSize() const {
  return maxCacheSize != 0 ? maxCacheSize : std::max<std::size_t>(100, 2 * entities.size());
}

}  // namespace veranda::reachabilityCache::sim
