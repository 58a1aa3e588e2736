#include "reachabilityCache/testing/RecordingListener.h"

#include <condition_variable>

#include "sync/Mutex.h"

namespace veranda::reachabilityCache::test {

struct RecordingListener::State {
  mutable Mutex mutex;
  std::condition_variable_any arrived;
  std::vector<Notification> notifications RC_GUARDED_BY(mutex);
};

RecordingListener::RecordingListener() : state_(std::make_unique<State>()) {}

RecordingListener::~RecordingListener() = default;

ReachabilityCache::ReachabilityListener RecordingListener::callback() {
  return [this](const std::string& endpointId, const std::string& entityId, bool isReachable) {
    record(endpointId, entityId, isReachable);
  };
}

void RecordingListener::record(const std::string& endpointId, const std::string& entityId,
                               bool isReachable) {
  MutexLock lock(state_->mutex);
  state_->notifications.push_back({endpointId, entityId, isReachable});
  state_->arrived.notify_all();
}

std::vector<Notification> RecordingListener::notifications() const {
  MutexLock lock(state_->mutex);
  return state_->notifications;
}

std::size_t RecordingListener::count() const {
  MutexLock lock(state_->mutex);
  return state_->notifications.size();
}

bool RecordingListener::waitForCount(std::size_t count, std::chrono::milliseconds timeout) const {
  MutexLock lock(state_->mutex);
  return state_->arrived.wait_for(state_->mutex, timeout, [&]() RC_REQUIRES(state_->mutex) {
    return state_->notifications.size() >= count;
  });
}

void RecordingListener::clear() {
  MutexLock lock(state_->mutex);
  state_->notifications.clear();
}

}  // namespace veranda::reachabilityCache::test
