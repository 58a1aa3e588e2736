// A reachability listener that records what it hears.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <ostream>
#include <string>
#include <vector>

#include "reachabilityCache/ReachabilityCache.h"

namespace veranda::reachabilityCache::test {

struct Notification {
  std::string endpointId;
  std::string entityId;
  bool isReachable;

  bool operator==(const Notification& other) const {
    return endpointId == other.endpointId && entityId == other.entityId &&
           isReachable == other.isReachable;
  }
};

inline std::ostream& operator<<(std::ostream& out, const Notification& notification) {
  return out << "{" << notification.endpointId << ", " << notification.entityId << ", "
             << (notification.isReachable ? "reachable" : "unreachable") << "}";
}

// Thread safety: every member may be called from any thread. The object must
// outlive the cache it listens to, or be unregistered first.
class RecordingListener {
 public:
  // The function to register with the cache.
  ReachabilityCache::ReachabilityListener callback();

  std::vector<Notification> notifications() const;
  std::size_t count() const;
  // Waits until at least `count` notifications arrived.
  bool waitForCount(std::size_t count, std::chrono::milliseconds timeout) const;
  void clear();

 private:
  void record(const std::string& endpointId, const std::string& entityId, bool isReachable);

  mutable std::mutex mutex_;
  mutable std::condition_variable arrived_;
  std::vector<Notification> notifications_;
};

}  // namespace veranda::reachabilityCache::test
