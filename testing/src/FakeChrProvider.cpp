#include "reachabilityCache/testing/FakeChrProvider.h"

#include <utility>

namespace veranda::reachabilityCache::test {

FakeChrProvider::FakeChrProvider(std::vector<EndpointInfo> endpoints)
    : endpoints_(std::move(endpoints)) {}

void FakeChrProvider::setEndpoints(std::vector<EndpointInfo> endpoints) {
  std::lock_guard<std::mutex> lock(mutex_);
  endpoints_ = std::move(endpoints);
}

std::size_t FakeChrProvider::queryCount() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return queryCount_;
}

bool FakeChrProvider::waitForQueries(std::size_t count, std::chrono::milliseconds timeout) const {
  std::unique_lock<std::mutex> lock(mutex_);
  return queried_.wait_for(lock, timeout, [&] { return queryCount_ >= count; });
}

std::vector<EndpointInfo> FakeChrProvider::queryEndpoints() {
  std::lock_guard<std::mutex> lock(mutex_);
  ++queryCount_;
  queried_.notify_all();
  return endpoints_;
}

}  // namespace veranda::reachabilityCache::test
