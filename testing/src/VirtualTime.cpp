#include "reachabilityCache/testing/VirtualTime.h"

#include "scheduling/TimeSource.h"

namespace veranda::reachabilityCache::test {

using scheduling::TimeSource;

VirtualTime::VirtualTime() {
  TimeSource::instance().beginVirtualTime();
  start_ = TimeSource::instance().virtualNow();
}

VirtualTime::~VirtualTime() { TimeSource::instance().endVirtualTime(); }

void VirtualTime::advance(std::chrono::milliseconds delta) {
  TimeSource::instance().advanceBy(delta, taskLimit_, nullptr, "advance()");
}

bool VirtualTime::advanceUntil(const std::function<bool()>& condition,
                               std::chrono::milliseconds limit) {
  return TimeSource::instance().advanceBy(limit, taskLimit_, condition, "advanceUntil()");
}

void VirtualTime::runUntilIdle() { TimeSource::instance().runUntilIdle(); }

void VirtualTime::setTaskLimit(std::uint64_t limit) { taskLimit_ = limit; }

std::chrono::steady_clock::time_point VirtualTime::now() const {
  return TimeSource::instance().virtualNow();
}

std::chrono::milliseconds VirtualTime::elapsed() const {
  return std::chrono::duration_cast<std::chrono::milliseconds>(TimeSource::instance().virtualNow() -
                                                               start_);
}

std::size_t VirtualTime::pendingTasks() const { return TimeSource::instance().pendingTasks(); }

}  // namespace veranda::reachabilityCache::test
