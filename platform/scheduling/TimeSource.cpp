#include "scheduling/TimeSource.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <limits>

#include "scheduling/DelayedTaskQueue.h"

namespace veranda::scheduling {
namespace {

using reachabilityCache::MutexLock;
using std::chrono::nanoseconds;

constexpr int64_t LATEST = std::numeric_limits<int64_t>::max();
constexpr int64_t EARLIEST = std::numeric_limits<int64_t>::min();

// A wait for the queues that lasts this long in real time is taken for a hang.
constexpr std::chrono::seconds LONGEST_SETTLE{60};

// The latest reading of virtual time: TimePoint::max() is "never".
constexpr TimeSource::TimePoint LATEST_REACHABLE = TimeSource::TimePoint::max() - nanoseconds(1);

// Set while the calling thread moves time, so that a condition that tries to
// move it too is told instead of deadlocking.
thread_local bool tMovingTime = false;

class MovingTime {
 public:
  MovingTime() { tMovingTime = true; }
  ~MovingTime() { tMovingTime = false; }
  MovingTime(const MovingTime&) = delete;
  MovingTime& operator=(const MovingTime&) = delete;
};

std::string secondsText(nanoseconds duration) {
  char text[64];
  std::snprintf(text, sizeof text, "%.3f s", std::chrono::duration<double>(duration).count());
  return text;
}

}  // namespace

TimeSource& TimeSource::instance() {
  // Never destroyed: queues of static objects detach from it at exit.
  static auto* const INSTANCE = new TimeSource();
  return *INSTANCE;
}

TimeSource::TimePoint TimeSource::now() const {
  return isVirtual() ? virtualNow() : std::chrono::steady_clock::now();
}

bool TimeSource::isVirtual() const { return virtual_.load(); }

TimeSource::TimePoint TimeSource::virtualNow() const {
  return TimePoint(nanoseconds(virtualNanos_.load()));
}

TimeSource::TimePoint TimeSource::plus(TimePoint base, nanoseconds delta) {
  const int64_t from = base.time_since_epoch().count();
  const int64_t by = delta.count();
  if (base == TimePoint::min() || base == TimePoint::max()) {
    return base;
  }
  if (by > 0 && from > LATEST - by) {
    return TimePoint::max();
  }
  if (by < 0 && from < EARLIEST - by) {
    return TimePoint::min();
  }
  return TimePoint(nanoseconds(from + by));
}

TimeSource::TimePoint TimeSource::plus(TimePoint base, std::chrono::milliseconds delta) {
  constexpr int64_t NANOS_PER_MILLI = 1000000;
  const int64_t count = delta.count();
  if (count > LATEST / NANOS_PER_MILLI) {
    return base == TimePoint::min() ? base : TimePoint::max();
  }
  if (count < EARLIEST / NANOS_PER_MILLI) {
    return base == TimePoint::max() ? base : TimePoint::min();
  }
  return plus(base, nanoseconds(count * NANOS_PER_MILLI));
}

void TimeSource::beginVirtualTime() {
  MutexLock control(controlMutex_);
  if (isVirtual()) {
    fail("virtual time is on already: a second VirtualTime while one lives");
  }
  MutexLock lock(queuesMutex_);
  virtualNanos_.store(std::chrono::steady_clock::now().time_since_epoch().count());
  virtual_.store(true);
  notifyQueuesLocked(true, nanoseconds::zero());
}

void TimeSource::endVirtualTime() {
  MutexLock control(controlMutex_);
  MutexLock lock(queuesMutex_);
  if (!isVirtual()) {
    return;
  }
  virtual_.store(false);
  notifyQueuesLocked(false, std::chrono::steady_clock::now() - virtualNow());
}

void TimeSource::advanceTo(TimePoint target) {
  checkCanWait("advance()");
  MutexLock control(controlMutex_);
  const MovingTime moving;
  moveStepByStepLocked(target, NO_TASK_LIMIT, nullptr, "advance()");
}

bool TimeSource::advanceBy(std::chrono::milliseconds delta, uint64_t taskLimit,
                           const std::function<bool()>& stopWhen, const char* operation) {
  checkCanWait(operation);
  MutexLock control(controlMutex_);
  const MovingTime moving;
  return moveStepByStepLocked(plus(virtualNow(), delta), taskLimit, stopWhen, operation);
}

bool TimeSource::moveStepByStepLocked(TimePoint target, uint64_t taskLimit,
                                      const std::function<bool()>& stopWhen,
                                      const char* operation) {
  target = std::min(target, LATEST_REACHABLE);
  const TimePoint from = virtualNow();
  const uint64_t tasksBefore = tasksRun_.load();
  const auto stepDone = [&] {
    waitUntilIdle(operation);
    const uint64_t ran = tasksRun_.load() - tasksBefore;
    if (ran > taskLimit) {
      fail(std::string(operation) + " has run more than " + std::to_string(taskLimit) +
           " tasks (its limit) and reached " + secondsText(virtualNow() - from) + " of the " +
           secondsText(target - from) +
           " asked for: a periodic task over a long advance? Advance less at a time, or raise "
           "the limit");
    }
    return stopWhen && stopWhen();
  };
  if (stepDone()) {
    return true;
  }
  TimePoint due;
  while (earliestDue(due) && due <= target) {
    moveTo(due);
    if (stepDone()) {
      return true;
    }
  }
  moveTo(target);
  return stepDone();
}

void TimeSource::runUntilIdle() {
  checkCanWait("runUntilIdle()");
  MutexLock control(controlMutex_);
  const MovingTime moving;
  waitUntilIdle("runUntilIdle()");
}

std::size_t TimeSource::pendingTasks() const {
  MutexLock lock(queuesMutex_);
  std::size_t pending = 0;
  for (const Queue* queue : queues_) {
    pending += queue->pendingCount();
  }
  return pending;
}

void TimeSource::fail(const std::string& message) {
  std::fprintf(stderr, "virtual time: %s\n", message.c_str());
  std::fflush(stderr);
  std::abort();
}

bool TimeSource::attach(Queue* queue) {
  MutexLock lock(queuesMutex_);
  queues_.push_back(queue);
  return isVirtual();
}

void TimeSource::detach(Queue* queue) {
  MutexLock lock(queuesMutex_);
  queues_.erase(std::remove(queues_.begin(), queues_.end(), queue), queues_.end());
}

void TimeSource::setBusy(bool busy) {
  MutexLock lock(busyMutex_);
  busyQueues_ += busy ? 1 : -1;
  if (busyQueues_ == 0) {
    idle_.notify_all();
  }
}

void TimeSource::countTask() { tasksRun_.fetch_add(1, std::memory_order_relaxed); }

void TimeSource::checkCanWait(const char* operation) const {
  if (tMovingTime) {
    fail(std::string(operation) + " called from inside a condition of advanceUntil(): it would " +
         "wait for itself");
  }
  if (!isVirtual()) {
    fail(std::string(operation) + " needs virtual time, and no VirtualTime lives");
  }
  if (DelayedTaskQueue::inTask()) {
    fail(std::string(operation) +
         " called from a task of an executor or a simulated driver: it would wait for itself");
  }
}

void TimeSource::notifyQueuesLocked(bool virtualTime, nanoseconds shift) {
  for (Queue* queue : queues_) {
    queue->timeChanged(virtualTime, shift);
  }
}

// Every queue hears of the new time before anyone waits for them, so that
// each has told whether it is busy at that time.
void TimeSource::moveTo(TimePoint time) {
  MutexLock lock(queuesMutex_);
  virtualNanos_.store(std::max(time, virtualNow()).time_since_epoch().count());
  notifyQueuesLocked(true, nanoseconds::zero());
}

bool TimeSource::earliestDue(TimePoint& due) const {
  MutexLock lock(queuesMutex_);
  bool found = false;
  for (const Queue* queue : queues_) {
    TimePoint next;
    if (queue->nextDue(next) && (!found || next < due)) {
      due = next;
      found = true;
    }
  }
  return found;
}

// Exact: a task that posts to another queue makes that queue busy before it
// stops counting as running itself, so the count of busy queues reaches zero
// only when no work is left at this time.
void TimeSource::waitUntilIdle(const char* operation) {
  MutexLock lock(busyMutex_);
  if (!idle_.wait_for(busyMutex_, LONGEST_SETTLE,
                      [this]() RC_REQUIRES(busyMutex_) { return busyQueues_ == 0; })) {
    fail(std::string(operation) + " has waited " + std::to_string(LONGEST_SETTLE.count()) +
         " s of real time for tasks to finish: a task blocks, perhaps waiting for the thread "
         "that moves time");
  }
}

}  // namespace veranda::scheduling
