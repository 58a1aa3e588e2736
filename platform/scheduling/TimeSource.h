// The process-wide clock of the platform stand-ins: the task executor and the
// simulated appliance driver take every due time from it. It is the steady
// clock unless a test switches it to virtual time, which stands still until
// the test moves it.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "sync/Mutex.h"

namespace veranda::scheduling {

// Thread safety: every member may be called from any thread.
//
// Virtual time: between beginVirtualTime() and endVirtualTime() now() moves
// only through advanceTo() and advanceBy(). Queues run what is due on their
// own threads as always; moving time and runUntilIdle() wait until every
// queue is idle, that is until no task runs and none is due. Virtual time
// starts at the steady clock's reading and never reaches TimePoint::max(),
// which stands for "never": a task due then never runs. When virtual time
// ends, the clock is the steady clock again and tasks still pending keep the
// delay they had left.
class TimeSource {
 public:
  using TimePoint = std::chrono::steady_clock::time_point;

  // A queue of delayed tasks that runs on this clock.
  class Queue {
   public:
    // The clock moved or changed mode: the queue reads it from now on in
    // `virtualTime` mode, moves its due times by `shift`, tells setBusy()
    // whether it is busy and wakes its worker.
    virtual void timeChanged(bool virtualTime, std::chrono::nanoseconds shift) = 0;
    // The earliest due time of a task not yet started; false when none.
    virtual bool nextDue(TimePoint& due) const = 0;
    // Tasks not yet started, whenever due.
    virtual std::size_t pendingCount() const = 0;

   protected:
    ~Queue() = default;
  };

  // The one time source of the process; it is never destroyed.
  static TimeSource& instance();

  TimeSource(const TimeSource&) = delete;
  TimeSource& operator=(const TimeSource&) = delete;

  // The steady clock's reading, or virtual time.
  TimePoint now() const;
  bool isVirtual() const;
  // The reading at which virtual time stands (the last one, after it ended).
  TimePoint virtualNow() const;

  // `base` moved by `delta`, held at TimePoint::min() or max() where it would
  // go beyond them. min() and max() stay as they are: they stand for "before
  // everything" and "never".
  static TimePoint plus(TimePoint base, std::chrono::nanoseconds delta);
  static TimePoint plus(TimePoint base, std::chrono::milliseconds delta);

  // ---- Virtual time, for the test support ----

  // Freezes the clock at its reading. Ends the process with a message when
  // virtual time is on already.
  void beginVirtualTime() RC_EXCLUDES(controlMutex_);
  void endVirtualTime() RC_EXCLUDES(controlMutex_);
  // No limit of tasks for advanceBy().
  static constexpr uint64_t NO_TASK_LIMIT = std::numeric_limits<uint64_t>::max();

  // Moves the clock to `target` one due time after another, and at each
  // waits until every queue is idle. Ends the process with a message when
  // called from a queue's task (it would wait for itself), outside virtual
  // time, or when a task keeps it waiting a minute of real time.
  void advanceTo(TimePoint target) RC_EXCLUDES(controlMutex_);
  // Moves the clock by `delta` from where it stands when this caller's turn
  // comes (callers that move time take turns), as advanceTo() does. Stops
  // early at the first of those moments, the start included, at which
  // `stopWhen` (unless empty; run on this thread, it must not move time)
  // answers true, and returns true then. Ends the process as advanceTo(), and
  // when more than `taskLimit` tasks run during the call. `operation` names
  // the call in messages.
  bool advanceBy(std::chrono::milliseconds delta, uint64_t taskLimit,
                 const std::function<bool()>& stopWhen, const char* operation)
      RC_EXCLUDES(controlMutex_);
  // Waits until every queue is idle at the current time. Ends the process like
  // advanceTo().
  void runUntilIdle() RC_EXCLUDES(controlMutex_);
  // Tasks of every queue not yet started, whenever due.
  std::size_t pendingTasks() const RC_EXCLUDES(queuesMutex_);

  // Writes "virtual time: <message>" to standard error and aborts.
  [[noreturn]] static void fail(const std::string& message);

  // ---- For the queues ----

  // Returns whether virtual time is on, the mode the queue starts in.
  bool attach(Queue* queue) RC_EXCLUDES(queuesMutex_);
  void detach(Queue* queue) RC_EXCLUDES(queuesMutex_);
  // A queue reports when it becomes busy in virtual time (a task running or
  // due) and when it stops being so.
  void setBusy(bool busy) RC_EXCLUDES(busyMutex_);
  // A queue reports each task it starts in virtual time.
  void countTask();

 private:
  TimeSource() = default;

  void checkCanWait(const char* operation) const;
  // Tells every queue.
  void notifyQueuesLocked(bool virtualTime, std::chrono::nanoseconds shift)
      RC_REQUIRES(queuesMutex_);
  // The steps of advanceTo() and advanceBy().
  bool moveStepByStepLocked(TimePoint target, uint64_t taskLimit,
                            const std::function<bool()>& stopWhen, const char* operation)
      RC_REQUIRES(controlMutex_);
  void moveTo(TimePoint time) RC_EXCLUDES(queuesMutex_);
  bool earliestDue(TimePoint& due) const RC_EXCLUDES(queuesMutex_);
  void waitUntilIdle(const char* operation) RC_EXCLUDES(busyMutex_);

  // Read without a lock by now().
  std::atomic<bool> virtual_{false};
  std::atomic<int64_t> virtualNanos_{0};

  // The lock order: controlMutex_, queuesMutex_, a queue's own mutex (held
  // while the queue calls setBusy()), busyMutex_.
  using Mutex = reachabilityCache::Mutex;
  Mutex controlMutex_;  // one caller changes the clock at a time
  std::atomic<uint64_t> tasksRun_{0};
  mutable Mutex queuesMutex_ RC_ACQUIRED_AFTER(controlMutex_);
  std::vector<Queue*> queues_ RC_GUARDED_BY(queuesMutex_);

  Mutex busyMutex_ RC_ACQUIRED_AFTER(queuesMutex_);
  std::condition_variable_any idle_;
  int64_t busyQueues_ RC_GUARDED_BY(busyMutex_) = 0;
};

}  // namespace veranda::scheduling
