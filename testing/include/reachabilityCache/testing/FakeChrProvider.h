// An endpoint provider whose list a test sets.
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <vector>

#include "reachabilityCache/EndpointInfo.h"
#include "reachabilityCache/ICHRProvider.h"

namespace veranda::reachabilityCache::test {

// Thread safety: every member may be called from any thread.
class FakeChrProvider : public ICHRProvider {
 public:
  // Answers with no endpoints until setEndpoints().
  FakeChrProvider();
  // Answers with `endpoints` until setEndpoints().
  explicit FakeChrProvider(std::vector<EndpointInfo> endpoints);
  ~FakeChrProvider() override;

  FakeChrProvider(const FakeChrProvider&) = delete;
  FakeChrProvider& operator=(const FakeChrProvider&) = delete;

  // The list that the next queries return.
  void setEndpoints(std::vector<EndpointInfo> endpoints);
  // How many times the cache asked.
  std::size_t queryCount() const;
  // Waits until the cache has asked at least `count` times.
  bool waitForQueries(std::size_t count, std::chrono::milliseconds timeout) const;

  std::vector<EndpointInfo> queryEndpoints() override;

 private:
  struct State;
  const std::unique_ptr<State> state_;
};

}  // namespace veranda::reachabilityCache::test
