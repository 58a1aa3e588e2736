// How a cache's refresh is going, as a host can ask it.
#pragma once

#include <chrono>
#include <cstdint>

namespace veranda::reachabilityCache {

// A snapshot of whether a cache keeps itself current. The fields are read one
// after another while refresh goes on, so a check answered meanwhile may show
// in one count and not yet in another.
struct ReachabilityCacheHealth {
  // The checker accepted the cache's subscription to connectivity events and
  // it is in force. False without refresh, and for a second cache on the same
  // driver: every cache subscribes as "reachability_updater_0" (its first id),
  // and the driver refuses an id already in use. Such a cache still follows
  // devices, but only at its cycles. Destroy the old cache before making its
  // replacement.
  bool hearsConnectivityEvents = false;
  // Checks that the checker accepted, periodic cycles and manual checks alike.
  uint64_t checksStarted = 0;
  // Of those, the checks whose answer the cache has applied.
  uint64_t checksAnswered = 0;
  // Checks that the checker refused to start.
  uint64_t checksNotStarted = 0;
  // Periodic cycles whose check was answered.
  uint64_t cyclesAnswered = 0;
  // When the cache finished applying the last answer to a periodic cycle, on
  // the steady clock; the clock's epoch while none has been answered.
  std::chrono::steady_clock::time_point lastCycleAnsweredAt{};

  // Started and not answered: still under way in the checker, or dropped by
  // a closed ReachabilityCheckerGuard, which never answers a check it drops.
  uint64_t checksUnanswered() const { return checksStarted - checksAnswered; }
};

}  // namespace veranda::reachabilityCache
