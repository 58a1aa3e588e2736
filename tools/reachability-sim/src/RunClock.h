// The time a simulated run plays in: the wall clock, or virtual time that the
// run moves itself, as fast as the machine allows.
#pragma once

#include <cstdint>

#include "scheduling/TimeSource.h"

namespace veranda::reachabilityCache::sim {

// Times are whole milliseconds since start(). In virtual time every task
// executor and simulated driver of the process stands still until the run
// moves time, and each move returns only once everything due by then has
// finished, so that one thing happens at a time and a run plays the same on
// every try.
//
// Thread safety: nowMs() may be called from any thread; the rest from the
// thread that plays the run, never from a task of an executor or a driver.
// Lifetime: at most one RunClock in virtual time exists in a process at a
// time, and none beside a test's VirtualTime.
class RunClock {
 public:
  // `fast`: virtual time from here on; otherwise the wall clock.
  explicit RunClock(bool fast);
  // Lets the process's clock run again if this clock stopped it.
  ~RunClock();

  RunClock(const RunClock&) = delete;
  RunClock& operator=(const RunClock&) = delete;

  bool fast() const { return fast_; }

  // Time 0 is now.
  void start();
  int64_t nowMs() const;

  // Returns at `atMs`: virtual time moves there, step by step to each due
  // task, and everything due by then has finished; the wall clock is slept
  // until then. Returns at once for a time already past.
  void waitUntil(int64_t atMs);

  // In virtual time, returns once what is due now, and what that posts for
  // now, has finished. On the wall clock, returns at once.
  void settle();

  // Stops the clock for good: returns once what is due by now has finished;
  // nothing due later ever runs.
  void freeze();

 private:
  const bool fast_;
  bool stopped_ = false;  // this clock has put the process in virtual time
  scheduling::TimeSource& time_;
  scheduling::TimeSource::TimePoint start_;
};

}  // namespace veranda::reachabilityCache::sim
