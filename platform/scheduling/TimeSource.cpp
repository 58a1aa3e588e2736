#include "scheduling/TimeSource.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <limits>

#include "scheduling/DelayedTaskQueue.h"

namespace veranda::scheduling {
namespace {

using std::chrono::nanoseconds;

constexpr int64_t kLatest = std::numeric_limits<int64_t>::max();
constexpr int64_t kNanosPerMilli = 1000000;

// A virtual-time wait that lasts this long in real time is taken for a hang.
constexpr std::chrono::seconds kLongestSettle{60};

// `base` + `add` nanoseconds, held at the largest count when it would overflow.
int64_t addSaturated(int64_t base, int64_t add) {
  if (add > 0 && base > kLatest - add) {
    return kLatest;
  }
  return base + add;
}

}  // namespace

TimeSource& TimeSource::instance() {
  // Never destroyed: queues of static objects detach from it at exit.
  static TimeSource* const time = new TimeSource();  // NOLINT(cppcoreguidelines-owning-memory)
  return *time;
}

TimeSource::TimePoint TimeSource::now() const {
  const int64_t frozen = virtualNanos_.load();
  if (frozen != kRealTime) {
    return TimePoint(nanoseconds(frozen));
  }
  const int64_t steady = std::chrono::steady_clock::now().time_since_epoch().count();
  return TimePoint(nanoseconds(addSaturated(steady, offsetNanos_.load())));
}

TimeSource::TimePoint TimeSource::after(std::chrono::milliseconds delay) const {
  const TimePoint base = now();
  if (delay <= std::chrono::milliseconds::zero()) {
    return base;
  }
  const int64_t delayNanos =
      delay.count() > kLatest / kNanosPerMilli ? kLatest : delay.count() * kNanosPerMilli;
  return TimePoint(nanoseconds(addSaturated(base.time_since_epoch().count(), delayNanos)));
}

bool TimeSource::isVirtual() const { return virtualNanos_.load() != kRealTime; }

void TimeSource::beginVirtualTime() {
  std::lock_guard<std::mutex> control(controlMutex_);
  if (isVirtual()) {
    fail("virtual time is already on: a second VirtualTime while one lives");
  }
  setVirtualNow(now());
}

void TimeSource::endVirtualTime() {
  std::lock_guard<std::mutex> control(controlMutex_);
  const int64_t frozen = virtualNanos_.load();
  if (frozen == kRealTime) {
    return;
  }
  const int64_t steady = std::chrono::steady_clock::now().time_since_epoch().count();
  offsetNanos_.store(frozen - steady);
  virtualNanos_.store(kRealTime);
  notifyQueues();
}

void TimeSource::advanceTo(TimePoint target) {
  checkCanWait("advance()");
  std::lock_guard<std::mutex> control(controlMutex_);
  waitUntilIdle("advance()");
  TimePoint due;
  while (earliestDue(due) && due <= target) {
    setVirtualNow(std::max(due, now()));
    waitUntilIdle("advance()");
  }
  setVirtualNow(std::max(target, now()));
  waitUntilIdle("advance()");
}

void TimeSource::runUntilIdle() {
  checkCanWait("runUntilIdle()");
  std::lock_guard<std::mutex> control(controlMutex_);
  waitUntilIdle("runUntilIdle()");
}

void TimeSource::fail(const std::string& message) {
  std::fprintf(stderr, "virtual time: %s\n", message.c_str());
  std::fflush(stderr);
  std::abort();
}

void TimeSource::attach(Queue* queue) {
  std::lock_guard<std::mutex> lock(queuesMutex_);
  queues_.push_back(queue);
}

void TimeSource::detach(Queue* queue) {
  std::lock_guard<std::mutex> lock(queuesMutex_);
  queues_.erase(std::remove(queues_.begin(), queues_.end(), queue), queues_.end());
}

void TimeSource::setBusy(bool busy) {
  std::lock_guard<std::mutex> lock(busyMutex_);
  busyQueues_ += busy ? 1 : -1;
  if (busyQueues_ == 0) {
    idle_.notify_all();
  }
}

void TimeSource::checkCanWait(const char* operation) const {
  if (!isVirtual()) {
    fail(std::string(operation) + " needs virtual time: no VirtualTime lives");
  }
  if (DelayedTaskQueue::inTask()) {
    fail(std::string(operation) +
         " called from a task of an executor or simulated driver: it would wait for itself");
  }
}

void TimeSource::setVirtualNow(TimePoint time) {
  virtualNanos_.store(time.time_since_epoch().count());
  notifyQueues();
}

// Every queue re-reads the clock, so that each reports whether it is busy at
// the new time before anyone waits for them.
void TimeSource::notifyQueues() {
  std::lock_guard<std::mutex> lock(queuesMutex_);
  for (Queue* queue : queues_) {
    queue->timeChanged();
  }
}

bool TimeSource::earliestDue(TimePoint& due) const {
  std::lock_guard<std::mutex> lock(queuesMutex_);
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
  std::unique_lock<std::mutex> lock(busyMutex_);
  if (!idle_.wait_for(lock, kLongestSettle, [this] { return busyQueues_ == 0; })) {
    fail(std::string(operation) + " has waited " + std::to_string(kLongestSettle.count()) +
         " s of real time for tasks to finish: a task blocks, perhaps waiting for the thread "
         "that moves time");
  }
}

}  // namespace veranda::scheduling
