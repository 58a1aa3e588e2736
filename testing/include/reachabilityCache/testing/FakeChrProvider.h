// An endpoint provider whose list a test sets.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <vector>

#include "reachabilityCache/EndpointInfo.h"
#include "reachabilityCache/ICHRProvider.h"

namespace veranda::reachabilityCache::test {

// Thread safety: every member may be called from any thread.
class FakeChrProvider : public ICHRProvider {
 public:
  // Answers with no endpoints until setEndpoints().
  FakeChrProvider() = default;
  // Answers with `endpoints` until setEndpoints().
  explicit FakeChrProvider(std::vector<EndpointInfo> endpoints);

  // The list that the next queries return.
  void setEndpoints(std::vector<EndpointInfo> endpoints);
  // How many times the cache asked.
  std::size_t queryCount() const;
  // Waits until the cache has asked at least `count` times.
  bool waitForQueries(std::size_t count, std::chrono::milliseconds timeout) const;

  std::vector<EndpointInfo> queryEndpoints() override;

 private:
  mutable std::mutex mutex_;
  mutable std::condition_variable queried_;
  std::vector<EndpointInfo> endpoints_;
  std::size_t queryCount_ = 0;
};

}  // namespace veranda::reachabilityCache::test
