// A reachability listener that records what it hears.
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "reachabilityCache/ReachabilityCache.h"

namespace veranda::reachabilityCache::test {

// One call of a listener.
struct Notification {
  std::string endpointId;  // the endpoint the cache named
  std::string entityId;    // its entity
  bool isReachable;        // the state the cache announced

  // Equal when every field is.
  bool operator==(const Notification& other) const {
    return endpointId == other.endpointId && entityId == other.entityId &&
           isReachable == other.isReachable;
  }
};

// "{endpoint, entity, reachable}", for test failure messages.
inline std::ostream& operator<<(std::ostream& out, const Notification& notification) {
  return out << "{" << notification.endpointId << ", " << notification.entityId << ", "
             << (notification.isReachable ? "reachable" : "unreachable") << "}";
}

// Thread safety: every member may be called from any thread. The object must
// outlive the cache it listens to, or be unregistered first.
class RecordingListener {
 public:
  RecordingListener();
  ~RecordingListener();

  RecordingListener(const RecordingListener&) = delete;
  RecordingListener& operator=(const RecordingListener&) = delete;

  // The function to register with the cache.
  ReachabilityCache::ReachabilityListener callback();

  // Every notification so far, in the order heard.
  std::vector<Notification> notifications() const;
  // How many notifications were heard.
  std::size_t count() const;
  // Waits until at least `count` notifications arrived.
  bool waitForCount(std::size_t count, std::chrono::milliseconds timeout) const;
  // Forgets every notification heard so far.
  void clear();

 private:
  void record(const std::string& endpointId, const std::string& entityId, bool isReachable);

  struct State;
  const std::unique_ptr<State> state_;
};

}  // namespace veranda::reachabilityCache::test
