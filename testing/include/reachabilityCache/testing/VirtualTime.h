// Virtual time for a host's tests: the cache's periodic cycles and the
// simulated driver's answers come when the test moves time, not the wall clock.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>

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
// driver's thread); advance(), advanceUntil() and runUntilIdle() return once
// it is done. Work the test does on its own thread (completing a fake check,
// delivering a fake event) runs there, synchronously.
//
// "Never" stays never: a delay too long for the clock (an update interval of
// std::chrono::seconds::max(), say) makes a task that no advance reaches.
//
// Thread safety: every member may be called from any thread but a task of an
// executor or driver. Threads that move time at once take turns, and each
// moves it by its whole delta from where the previous one left it.
//
// Misuse ends the process with a message on standard error rather than
// hanging: a second instance; advance(), advanceUntil() or runUntilIdle()
// called from a task that they would wait for, or from a condition of
// advanceUntil(); a task that keeps re-posting itself (or a chain of tasks
// posting one another) with no delay, 10000 in a row; a task that keeps them
// waiting a minute of real time; and one advance() or advanceUntil() that runs
// more tasks than its limit (see setTaskLimit()).
class VirtualTime {
 public:
  // The tasks one advance may run unless setTaskLimit() says otherwise. A
  // day of a cache's cycles at one a second is 86 400 tasks of its worker
  // (and as many driver answers); a million take some 20 s.
  static constexpr std::uint64_t DEFAULT_TASK_LIMIT = 1000000;

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

  // Moves time forward as advance() does, by at most `limit`, and stops at
  // the first moment (now included, then each due time) at which `condition`
  // holds once everything due by then has finished. Returns whether it
  // holds; when it does not, time has moved by the whole `limit`.
  // `condition` runs on the calling thread and must not move time.
  bool advanceUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit);

  // Runs what is due now, and what that posts for now, until nothing is due
  // and nothing runs.
  void runUntilIdle();

  // The most tasks that one advance() or advanceUntil() may run before it
  // ends the process with a message that says so: a periodic cache over an
  // advance of years would otherwise run for hours without a word.
  void setTaskLimit(std::uint64_t limit);

  // The virtual clock's reading: the steady clock's reading when this
  // instance was made, plus elapsed().
  std::chrono::steady_clock::time_point now() const;
  // Virtual time since this instance was made.
  std::chrono::milliseconds elapsed() const;
  // Tasks of the process's executors and simulated drivers that have not
  // started yet, whenever due (a cache's next cycle is one).
  std::size_t pendingTasks() const;

 private:
  std::chrono::steady_clock::time_point start_;
  std::atomic<std::uint64_t> taskLimit_{DEFAULT_TASK_LIMIT};
};

}  // namespace veranda::reachabilityCache::test
