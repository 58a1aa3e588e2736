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
  TimeSource& time = TimeSource::instance();
  time.advanceTo(TimeSource::plus(time.virtualNow(), delta));
}

void VirtualTime::runUntilIdle() { TimeSource::instance().runUntilIdle(); }

std::chrono::milliseconds VirtualTime::elapsed() const {
  return std::chrono::duration_cast<std::chrono::milliseconds>(TimeSource::instance().virtualNow() -
                                                               start_);
}

}  // namespace veranda::reachabilityCache::test
