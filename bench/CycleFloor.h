// The least work a periodic cycle needs, to set the cache's cycle against.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <unordered_map>
#include <vector>

#include "applianceDriver/ApplianceDriver.h"
#include "reachabilityCache/CapabilityKey.h"
#include "reachabilityCache/EndpointInfo.h"
#include "reachabilityCache/ICHRProvider.h"

namespace veranda::reachabilityCache::bench {

// Plays the same cycles as a CycleRig over the library's checker (the same
// provider list, the same alternating answers of the driver, the same stale
// endpoints to sweep) with only what any cycle must do, on the calling
// thread: take the provider's copy of its list, build the set of its ids,
// sweep the stored endpoints it no longer names, then for each device of the
// driver's answer one lookup of the stored record and one update of it, and
// write the lines the cache must write (the same texts) and call one
// listener per change. Records are flat: one map from endpoint id to the
// entity id, adapter, reachability and capabilities, which is also how an
// entity's reachability is judged.
class CycleFloor {
 public:
  explicit CycleFloor(const std::vector<EndpointInfo>& endpoints);

  // Runs one cycle on the calling thread.
  void runCycle();
  // Stores `count` endpoints that the provider does not name, for the next
  // cycle to sweep.
  void addStaleEndpoints(std::size_t count);
  uint64_t notifications() const { return notifications_; }

 private:
  struct Record {
    std::string entityId;
    std::string adapterName;
    bool reachable = false;
    CapabilitySet capabilities;
  };

  // Returns the same list on every query, as the cache's provider does.
  class Provider : public ICHRProvider {
   public:
    explicit Provider(std::vector<EndpointInfo> endpoints) : endpoints_(std::move(endpoints)) {}
    std::vector<EndpointInfo> queryEndpoints() override { return endpoints_; }

   private:
    const std::vector<EndpointInfo> endpoints_;
  };

  // What the cycle's summary line tells.
  struct Totals {
    std::size_t reachable = 0;
    std::size_t unreachable = 0;
    std::size_t changed = 0;
    std::string details;
  };

  void sweep(const std::vector<EndpointInfo>& endpoints);
  // Applies one device of the answer and adds it to `totals`.
  void apply(const applianceDriver::DiscoveredDevice& device, Totals& totals);

  Provider provider_;
  std::unordered_map<std::string, Record> records_;
  std::vector<applianceDriver::DiscoveredDevice> answers_[2];  // [0] unreachable, [1] reachable
  bool nextReachable_ = true;
  uint64_t cycles_ = 0;
  uint64_t staleSeed_ = 0;
  uint64_t notifications_ = 0;
  // The one listener, called per change as the cache calls its listeners.
  const std::function<void(const std::string&, const std::string&, bool)> listener_ =
      [this](const std::string&, const std::string&, bool) { ++notifications_; };
};

}  // namespace veranda::reachabilityCache::bench
