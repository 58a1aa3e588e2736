// Virtual time for a host's tests: the cache's periodic cycles and the
// simulated driver's answers come when the test moves time, not the wall clock.
#pragma once

#include <chrono>

namespace veranda::reachabilityCache::test {

// While an instance lives, every task executor and simulated appliance driver
// of the process runs on virtual time, which stands still until the test moves
// it. Make it before the cache and destroy it after the cache.
//
//   VirtualTime time;                        // before the cache
//   ReachabilityCache cache(&provider, config);
//   time.advance(std::chrono::seconds(1));   // the first cycle has run
//
// Work runs on its own threads as in production (the cache's worker, the
// driver's thread); advance() and runUntilIdle() return once it is done. Work
// the test does on its own thread (completing a fake check, delivering a fake
// event) runs there, synchronously.
//
// Thread safety: one thread moves time at a time; elapsed() may be called
// from any thread. Misuse ends the process with a message on standard error
// rather than hanging: a second instance, advance() or runUntilIdle() called
// from a task that they would wait for, a task that keeps re-posting itself
// (or a chain of tasks posting one another) with no delay, 10000 in a row, or
// a task that keeps them waiting a minute of real time.
class VirtualTime {
 public:
  // Freezes time for the process's executors and simulated drivers.
  VirtualTime();
  // Lets time run with the clock again, from where virtual time stood.
  ~VirtualTime();

  VirtualTime(const VirtualTime&) = delete;
  VirtualTime& operator=(const VirtualTime&) = delete;

  // Moves time forward by `delta`, step by step to each due task inside the
  // window, and at each step runs what is due. Returns once everything due by
  // the new time has finished, including what those tasks posted for no later
  // than that. A delta of zero or less only runs what is due now.
  void advance(std::chrono::milliseconds delta);

  // Runs what is due now, and what that posts for now, until nothing is due
  // and nothing runs.
  void runUntilIdle();

  // Virtual time since this instance was made.
  std::chrono::milliseconds elapsed() const;

 private:
  std::chrono::steady_clock::time_point start_;
};

}  // namespace veranda::reachabilityCache::test
