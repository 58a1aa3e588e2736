// The process-wide clock of the platform stand-ins: the task executor and the
// simulated appliance driver take every due time from it. It follows the
// steady clock unless a test switches it to virtual time, which stands still
// until the test moves it.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace veranda::scheduling {

// Thread safety: every member may be called from any thread.
//
// Virtual time: between beginVirtualTime() and endVirtualTime() now() moves
// only through advanceTo(). Queues run what is due on their own threads as
// always; advanceTo() and runUntilIdle() wait until every queue is idle, that
// is until no task is running and none is due. Leaving virtual time, the
// clock goes on from the virtual reading at the pace of the steady clock, so
// that it never runs backwards.
class TimeSource {
 public:
  using TimePoint = std::chrono::steady_clock::time_point;

  // A queue whose tasks the time source waits for in virtual time.
  class Queue {
   public:
    // Re-reads now() and wakes the queue's worker; reports busy() anew.
    virtual void timeChanged() = 0;
    // The earliest due time of a task not yet started; false when none.
    virtual bool nextDue(TimePoint& due) const = 0;

   protected:
    ~Queue() = default;
  };

  // The one time source of the process; it is never destroyed.
  static TimeSource& instance();

  TimeSource(const TimeSource&) = delete;
  TimeSource& operator=(const TimeSource&) = delete;

  TimePoint now() const;
  // now() + delay: now() for a delay of zero or less, TimePoint::max() when
  // the sum does not fit. Never earlier than now() for a positive delay.
  TimePoint after(std::chrono::milliseconds delay) const;
  bool isVirtual() const;

  // ---- Virtual time, for the test support ----

  // Freezes the clock at its reading. Ends the process with a message when
  // virtual time is already on.
  void beginVirtualTime();
  void endVirtualTime();
  // Moves the clock to `target` one due time after another, and at each
  // waits until every queue is idle. Ends the process with a message when
  // called from a queue's task (it would wait for itself) or outside virtual
  // time.
  void advanceTo(TimePoint target);
  // Waits until every queue is idle at the current time. Ends the process like
  // advanceTo().
  void runUntilIdle();

  // Writes "virtual time: <message>" to standard error and aborts.
  [[noreturn]] static void fail(const std::string& message);

  // ---- For the queues ----

  void attach(Queue* queue);
  void detach(Queue* queue);
  // A queue reports when it becomes busy (a task running or due in virtual
  // time) and when it stops being so.
  void setBusy(bool busy);

 private:
  TimeSource() = default;

  void checkCanWait(const char* operation) const;
  void setVirtualNow(TimePoint time);
  void notifyQueues();
  bool earliestDue(TimePoint& due) const;
  void waitUntilIdle(const char* operation);

  // now() reads these without a lock: the frozen reading in nanoseconds, or
  // kRealTime when the clock follows the steady clock.
  static constexpr int64_t kRealTime = INT64_MIN;
  std::atomic<int64_t> virtualNanos_{kRealTime};
  std::atomic<int64_t> offsetNanos_{0};  // added to the steady clock in real time

  std::mutex controlMutex_;  // one caller moves time at a time
  mutable std::mutex queuesMutex_;
  std::vector<Queue*> queues_;  // guarded by queuesMutex_

  std::mutex busyMutex_;
  std::condition_variable idle_;
  int64_t busyQueues_ = 0;  // guarded by busyMutex_
};

}  // namespace veranda::scheduling
