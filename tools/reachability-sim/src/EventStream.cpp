#include "EventStream.h"

#include <cmath>

#include "SplitMix.h"

namespace veranda::reachabilityCache::sim {
namespace {

constexpr int64_t SHORTEST_DROP_MS = 200;
constexpr int64_t LONGEST_DROP_MS = 3000;

// Uniform in [0, 1).
double nextUnit(uint64_t& state) {
  return static_cast<double>(nextRandom(state) >> 11) * 0x1.0p-53;
}

}  // namespace

EventStream::EventStream(const Scenario& scenario) : scenario_(scenario) {
  const GeneratedFlaps& flaps = scenario.flaps;
  if (!(flaps.perMinute > 0)) {
    return;
  }
  flappers_.resize(scenario.devices.size());
  for (std::size_t device = 0; device < flappers_.size(); ++device) {
    uint64_t origin = (static_cast<uint64_t>(flaps.seed) << 32) ^ device;
    flappers_[device].random = nextRandom(origin);
    scheduleFlap(device, 0);
  }
}

void EventStream::scheduleFlap(std::size_t device, int64_t fromMs) {
  Flapper& flapper = flappers_[device];
  double atMs = 0;
  if (flapper.down) {
    const auto span = static_cast<uint64_t>(LONGEST_DROP_MS - SHORTEST_DROP_MS + 1);
    atMs = static_cast<double>(fromMs + SHORTEST_DROP_MS +
                               static_cast<int64_t>(nextRandom(flapper.random) % span));
  } else {
    const double gapMs = -std::log1p(-nextUnit(flapper.random)) * 60000 / scenario_.flaps.perMinute;
    atMs = std::floor(static_cast<double>(fromMs) + gapMs);
  }
  if (atMs < static_cast<double>(scenario_.durationMs)) {
    flaps_.emplace(static_cast<int64_t>(atMs), device);
  }
}

bool EventStream::listedIsNext() const {
  return nextListed_ < scenario_.events.size() &&
         (flaps_.empty() || scenario_.events[nextListed_].atMs <= flaps_.top().first);
}

std::optional<int64_t> EventStream::nextAtMs() const {
  std::optional<int64_t> at;
  if (listedIsNext()) {
    at = scenario_.events[nextListed_].atMs;
  } else if (!flaps_.empty()) {
    at = flaps_.top().first;
  }
  return at && *at < scenario_.durationMs ? at : std::nullopt;
}

Event EventStream::take() {
  if (listedIsNext()) {
    return scenario_.events[nextListed_++];
  }
  const auto [atMs, device] = flaps_.top();
  flaps_.pop();
  Flapper& flapper = flappers_[device];
  flapper.down = !flapper.down;
  scheduleFlap(device, atMs);
  return {atMs, flapper.down ? Action::OFFLINE : Action::ONLINE,
          scenario_.devices[device].endpointId};
}

}  // namespace veranda::reachabilityCache::sim
