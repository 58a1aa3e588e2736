// A real ReachabilityUpdater over a real store, run one periodic cycle at a
// time, with a provider and a check that answer at once on the updater's
// thread, so that a cycle's duration is the library's own work.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "applianceDriver/ApplianceDriver.h"
#include "reachabilityCache/ICHRProvider.h"
#include "reachabilityCache/IReachabilityChecker.h"
#include "store/CacheCore.h"
#include "updater/ReachabilityUpdater.h"

namespace veranda::reachabilityCache::bench {

// CPU time of the calling thread so far (user and system).
std::chrono::duration<double> threadCpuTime();

// Counts finished checks; waiters block until a count is reached.
class CompletionSignal {
 public:
  void signal();
  // False when `count` was not reached within `timeout`.
  bool waitFor(uint64_t count, std::chrono::milliseconds timeout);

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  uint64_t count_ = 0;
};

// Returns the same endpoints on every query. Each query starts a cycle on the
// updater's thread; the provider measures how much CPU time that thread spent
// from one query to the next, which is one whole cycle, teardown included,
// without the time the thread waited for a core or for the next cycle.
class FixedProvider : public ICHRProvider {
 public:
  explicit FixedProvider(std::vector<EndpointInfo> endpoints) : endpoints_(std::move(endpoints)) {}
  std::vector<EndpointInfo> queryEndpoints() override;

  // CPU time of the cycle before the last one started; zero before two.
  std::chrono::duration<double> previousCycleCpu() const;

 private:
  const std::vector<EndpointInfo> endpoints_;
  mutable std::mutex mutex_;
  std::chrono::duration<double> lastStart_{-1};        // thread CPU clock at the last query
  std::chrono::duration<double> previousCycleCpu_{0};  // between the last two queries
};

// Answers every check at once on the calling thread, alternately with every
// endpoint reachable (NATIVE, its capabilities) and every endpoint
// unreachable, so that every cycle changes every entity and notifies. The
// answers are built up front: building them is not the library's work.
class SynchronousChecker : public IReachabilityChecker {
 public:
  SynchronousChecker(const std::vector<EndpointInfo>& endpoints, CompletionSignal& done);

  bool checkReachability(const std::vector<EndpointInfo>& endpoints, const std::string& requestId,
                         ResultsCallback callback) override;
  bool registerReachabilityUpdateCallback(const std::string& /*callbackId*/,
                                          UpdateCallback /*callback*/) override {
    return false;
  }
  bool unregisterReachabilityUpdateCallback(const std::string& /*callbackId*/) override {
    return false;
  }

 private:
  std::vector<ReachabilityCheckResult> answers_[2];  // [0] unreachable, [1] reachable
  bool nextReachable_ = true;                        // touched on the updater's thread only
  CompletionSignal& done_;
};

// An appliance driver that answers getReachableDevices at once on the calling
// thread, alternately with every device reachable and every device
// unreachable. Used under the library's own ApplianceDriverReachabilityChecker.
class SynchronousDriver : public applianceDriver::IUnifiedApplianceDriver {
 public:
  SynchronousDriver(const std::vector<EndpointInfo>& endpoints, CompletionSignal& done);

  bool getReachableDevices(
      const std::string& requestId,
      std::function<void(const std::vector<applianceDriver::DiscoveredDevice>&)> onDevices)
      override;
  bool subscribeStateChanges(const std::vector<std::string>& /*endpointIds*/,
                             const std::string& /*subscriptionId*/,
                             std::function<void(const applianceDriver::StateChangeEvent&)>
                             /*onStateChange*/,
                             std::function<void(const std::string&)> /*onError*/) override {
    return false;
  }
  bool unsubscribeStateChanges(const std::string& /*subscriptionId*/) override { return false; }

 private:
  std::vector<applianceDriver::DiscoveredDevice> answers_[2];
  bool nextReachable_ = true;
  CompletionSignal& done_;
};

// Which check a rig's updater uses.
enum class CheckPath {
  TEST_CHECKER,     // SynchronousChecker: the updater's and the store's work only
  APPLIANCE_DRIVER  // ApplianceDriverReachabilityChecker over SynchronousDriver
};

// One store, one updater and one provider naming `endpoints`. Each runCycle()
// starts one periodic cycle on the updater's executor and returns when its
// results have been applied. One listener is registered and counts the
// notifications.
class CycleRig {
 public:
  CycleRig(std::vector<EndpointInfo> endpoints, CheckPath path);
  ~CycleRig();

  // Runs one cycle; returns its duration from the start request to the last
  // result applied, or a negative duration when it did not finish in time.
  std::chrono::duration<double> runCycle();
  // The updater thread's CPU time for the cycle before the last one started
  // (see FixedProvider); zero until two cycles have started.
  std::chrono::duration<double> previousCycleCpu() const { return provider_.previousCycleCpu(); }
  // Inserts `count` endpoints that the provider does not name, for the next
  // cycle to sweep.
  void addStaleEndpoints(std::size_t count);

  CacheCore& cache() { return *cache_; }
  std::size_t endpointCount() const { return endpointCount_; }
  uint64_t notifications() const;

 private:
  const std::size_t endpointCount_;
  CompletionSignal done_;
  uint64_t cyclesStarted_ = 0;
  uint64_t staleSeed_ = 0;
  std::shared_ptr<CacheCore> cache_;
  std::unique_ptr<applianceDriver::IUnifiedApplianceDriver> driver_;
  std::shared_ptr<IReachabilityChecker> checker_;
  FixedProvider provider_;
  std::unique_ptr<ReachabilityUpdater> updater_;
  std::shared_ptr<std::atomic<uint64_t>> notifications_;
};

}  // namespace veranda::reachabilityCache::bench
