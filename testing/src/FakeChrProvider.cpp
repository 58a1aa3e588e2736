#include "reachabilityCache/testing/FakeChrProvider.h"

#include <condition_variable>
#include <utility>

#include "sync/Mutex.h"

namespace veranda::reachabilityCache::test {

struct FakeChrProvider::State {
  explicit State(std::vector<EndpointInfo> initial) : endpoints(std::move(initial)) {}

  mutable Mutex mutex;
  std::condition_variable_any queried;
  std::vector<EndpointInfo> endpoints RC_GUARDED_BY(mutex);
  std::size_t queryCount RC_GUARDED_BY(mutex) = 0;
};

FakeChrProvider::FakeChrProvider() : FakeChrProvider(std::vector<EndpointInfo>{}) {}

FakeChrProvider::FakeChrProvider(std::vector<EndpointInfo> endpoints)
    : state_(std::make_unique<State>(std::move(endpoints))) {}

FakeChrProvider::~FakeChrProvider() = default;

void FakeChrProvider::setEndpoints(std::vector<EndpointInfo> endpoints) {
  MutexLock lock(state_->mutex);
  state_->endpoints = std::move(endpoints);
}

std::size_t FakeChrProvider::queryCount() const {
  MutexLock lock(state_->mutex);
  return state_->queryCount;
}

bool FakeChrProvider::waitForQueries(std::size_t count, std::chrono::milliseconds timeout) const {
  MutexLock lock(state_->mutex);
  return state_->queried.wait_for(state_->mutex, timeout, [&]() RC_REQUIRES(state_->mutex) {
    return state_->queryCount >= count;
  });
}

std::vector<EndpointInfo> FakeChrProvider::queryEndpoints() {
  MutexLock lock(state_->mutex);
  ++state_->queryCount;
  state_->queried.notify_all();
  return state_->endpoints;
}

}  // namespace veranda::reachabilityCache::test
