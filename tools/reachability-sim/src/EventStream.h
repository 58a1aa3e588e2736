// The events of a scenario in the order they run.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <queue>
#include <utility>
#include <vector>

#include "Scenario.h"

namespace veranda::reachabilityCache::sim {

// Merges a scenario's listed events with the flaps it generates. Flaps are
// made as they are taken, one pending event per device, so memory grows with
// the number of devices and not with the duration or the flap rate. Events
// come in time order; at equal times listed events come first, then flaps in
// device order. Events at or after the scenario's duration never come.
//
// Thread safety: none; one thread takes the events. The scenario must
// outlive the stream.
class EventStream {
 public:
  explicit EventStream(const Scenario& scenario);
  explicit EventStream(Scenario&& scenario) = delete;  // it would not outlive the stream

  // When the next event is due; nullopt once none is left.
  std::optional<int64_t> nextAtMs() const;

  // Removes and returns the next event. Requires nextAtMs().
  Event take();

 private:
  // A device's flaps: its own random sequence, and whether it is down.
  struct Flapper {
    uint64_t random = 0;
    bool down = false;
  };
  using Due = std::pair<int64_t, std::size_t>;  // (time, device index)

  // Schedules the device's next flap after `fromMs`, if it comes before the end.
  void scheduleFlap(std::size_t device, int64_t fromMs);
  bool listedIsNext() const;

  const Scenario& scenario_;
  std::size_t nextListed_ = 0;
  std::vector<Flapper> flappers_;  // parallel to the scenario's devices
  std::priority_queue<Due, std::vector<Due>, std::greater<>> flaps_;
};

}  // namespace veranda::reachabilityCache::sim
