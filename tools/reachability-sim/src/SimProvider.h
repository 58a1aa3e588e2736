// The host's registry of endpoints, as the cache's provider sees it.
#pragma once

#include <cstddef>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "Scenario.h"
#include "reachabilityCache/ICHRProvider.h"

namespace veranda::reachabilityCache::sim {

// Names the devices of the home that are present, in scenario order.
//
// Thread safety: every member may be called from any thread; `onQuery` runs
// on the cache's worker, outside the provider's lock.
class SimProvider : public ICHRProvider {
 public:
  // Told at each query: how many endpoints it names, and the entities of the
  // devices it does not name (those whose endpoints a sweep may drop), each
  // once, in scenario order.
  using QueryCallback =
      std::function<void(std::size_t named, const std::vector<std::string>& unnamedEntities)>;

  // Named at first: the devices that are present at the start.
  SimProvider(const Scenario& scenario, QueryCallback onQuery);

  // Starts or stops naming the device with this endpoint id.
  void setNamed(const std::string& endpointId, bool named);

  std::vector<EndpointInfo> queryEndpoints() override;

 private:
  std::vector<EndpointInfo> records_;  // every device, in scenario order
  QueryCallback onQuery_;
  std::mutex mutex_;
  std::vector<bool> named_;  // guarded by mutex_; parallel to records_
};

// The device's capabilities as the cache stores them.
CapabilitySet capabilitySet(const Device& device);

}  // namespace veranda::reachabilityCache::sim
