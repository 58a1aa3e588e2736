#include "Scenario.h"

#include <algorithm>

namespace veranda::reachabilityCache::sim {

const char* actionName(Action action) {
  switch (action) {
    case Action::kOffline:
      return "offline";
    case Action::kOnline:
      return "online";
    case Action::kRemove:
      return "remove";
    case Action::kAdd:
      return "add";
    case Action::kPush:
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
