#include "SimProvider.h"

#include <unordered_set>
#include <utility>

namespace veranda::reachabilityCache::sim {

CapabilitySet capabilitySet(const Device& device) {
  CapabilitySet set;
  for (const auto& capability : device.capabilities) {
    set.insert(CapabilityKey{capability.first, capability.second});
  }
  return set;
}

SimProvider::SimProvider(const Scenario& scenario, QueryCallback onQuery)
    : onQuery_(std::move(onQuery)) {
  for (const Device& device : scenario.devices) {
    records_.emplace_back(device.endpointId, device.entityId, device.adapterName,
                          capabilitySet(device));
    named_.push_back(device.present);
  }
}

void SimProvider::setNamed(const std::string& endpointId, bool named) {
  std::lock_guard<std::mutex> lock(mutex_);
  for (std::size_t i = 0; i < records_.size(); ++i) {
    if (records_[i].endpointId == endpointId) {
      named_[i] = named;
    }
  }
}

std::vector<EndpointInfo> SimProvider::queryEndpoints() {
  std::vector<EndpointInfo> named;
  std::vector<std::string> unnamedEntities;
  std::unordered_set<std::string> listed;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    for (std::size_t i = 0; i < records_.size(); ++i) {
      if (named_[i]) {
        named.push_back(records_[i]);
      } else if (listed.insert(records_[i].entityId).second) {
        unnamedEntities.push_back(records_[i].entityId);
      }
    }
  }
  if (onQuery_) {
    onQuery_(named.size(), unnamedEntities);
  }
  return named;
}

}  // namespace veranda::reachabilityCache::sim
