#include "RunClock.h"

#include <chrono>
#include <thread>

namespace veranda::reachabilityCache::sim {

using scheduling::TimeSource;

RunClock::RunClock(bool fast) : fast_(fast), time_(TimeSource::instance()) {
  if (fast_) {
    time_.beginVirtualTime();
    stopped_ = true;
  }
  start_ = time_.now();
}

RunClock::~RunClock() {
  if (stopped_) {
    time_.endVirtualTime();
  }
}

void RunClock::start() { start_ = time_.now(); }

int64_t RunClock::nowMs() const {
  return std::chrono::duration_cast<std::chrono::milliseconds>(time_.now() - start_).count();
}

void RunClock::waitUntil(int64_t atMs) {
  const TimeSource::TimePoint target = TimeSource::plus(start_, std::chrono::milliseconds(atMs));
  if (fast_) {
    time_.advanceTo(target);
  } else {
    std::this_thread::sleep_until(target);
  }
}

void RunClock::settle() {
  if (fast_) {
    time_.runUntilIdle();
  }
}

void RunClock::freeze() {
  if (!stopped_) {
    time_.beginVirtualTime();
    stopped_ = true;
  }
  time_.runUntilIdle();
}

}  // namespace veranda::reachabilityCache::sim
