#include "reachabilityCache/testing/RecordingListener.h"

namespace veranda::reachabilityCache::test {

ReachabilityCache::ReachabilityListener RecordingListener::callback() {
  return [this](const std::string& endpointId, const std::string& entityId, bool isReachable) {
    record(endpointId, entityId, isReachable);
  };
}

void RecordingListener::record(const std::string& endpointId, const std::string& entityId,
                               bool isReachable) {
  std::lock_guard<std::mutex> lock(mutex_);
  notifications_.push_back({endpointId, entityId, isReachable});
  arrived_.notify_all();
}

std::vector<Notification> RecordingListener::notifications() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return notifications_;
}

std::size_t RecordingListener::count() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return notifications_.size();
}

bool RecordingListener::waitForCount(std::size_t count, std::chrono::milliseconds timeout) const {
  std::unique_lock<std::mutex> lock(mutex_);
  return arrived_.wait_for(lock, timeout, [&] { return notifications_.size() >= count; });
}

void RecordingListener::clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  notifications_.clear();
}

}  // namespace veranda::reachabilityCache::test
