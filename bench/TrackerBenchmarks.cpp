// Tracker: what a connectivity event costs the cache's worker with and
// without an EntityReachabilityTracker attached, at 1 000 and 10 000
// entities. The difference is the tracker's own cost per event, which should
// follow the change (one entity) rather than the size of the home.
#include <benchmark/benchmark.h>
#include <pthread.h>
#include <ctime>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "BenchData.h"
#include "reachabilityCache/EntityReachabilityTracker.h"
#include "reachabilityCache/ReachabilityCache.h"
#include "reachabilityCache/ReachabilityCheckerGuard.h"

namespace veranda::reachabilityCache::bench {
namespace {

using applianceDriver::ApplianceDriverType;

constexpr std::chrono::seconds EVENT_TIMEOUT{10};
constexpr std::chrono::seconds NEVER_AGAIN{365LL * 24 * 3600};

// Names nothing, so that no cycle runs a check.
class EmptyProvider : public ICHRProvider {
 public:
  std::vector<EndpointInfo> queryEndpoints() override { return {}; }
};

// A checker that starts no check and hands the connectivity events the
// benchmark publishes to the cache's subscription, on the publishing thread.
class EventChecker : public IReachabilityChecker {
 public:
  bool checkReachability(const std::vector<EndpointInfo>& /*endpoints*/,
                         const std::string& /*requestId*/, ResultsCallback /*callback*/) override {
    return false;
  }
  bool registerReachabilityUpdateCallback(const std::string& /*callbackId*/,
                                          UpdateCallback callback) override {
    const std::lock_guard<std::mutex> lock(mutex_);
    callback_ = std::move(callback);
    return true;
  }
  bool unregisterReachabilityUpdateCallback(const std::string& /*callbackId*/) override {
    const std::lock_guard<std::mutex> lock(mutex_);
    callback_ = nullptr;
    return true;
  }

  // The driver reports `endpointId` unreachable.
  void publishUnreachable(const std::string& endpointId) {
    UpdateCallback callback;
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      callback = callback_;
    }
    callback(ReachabilityCheckResult(endpointId, "", "", false, CapabilitySet(),
                                     ApplianceDriverType::NO_DRIVER));
  }

 private:
  std::mutex mutex_;
  UpdateCallback callback_;
};

// A cache of `entities` reachable entities over an EventChecker behind a
// guard, with one listener of its own and, optionally, a tracker.
class TrackerRig {
 public:
  TrackerRig(std::size_t entities, bool withTracker)
      : endpoints_(endpointsOfEntities(entities)),
        checker_(std::make_shared<EventChecker>()),
        guard_(std::make_shared<ReachabilityCheckerGuard>(checker_)),
        cache_(&provider_, ReachabilityCache::Config{entities, NEVER_AGAIN, true, guard_}) {
    // Only an entity's sole endpoint makes it unreachable when it goes.
    for (std::size_t i = 0; i < endpoints_.size(); ++i) {
      const bool sharesEntity =
          (i > 0 && endpoints_[i - 1].entityId == endpoints_[i].entityId) ||
          (i + 1 < endpoints_.size() && endpoints_[i + 1].entityId == endpoints_[i].entityId);
      if (!sharesEntity) {
        eventEndpoints_.push_back(&endpoints_[i]);
      }
    }
    std::vector<CachedEndpoint> records;
    records.reserve(endpoints_.size());
    for (const EndpointInfo& endpoint : endpoints_) {
      records.push_back(asCached(endpoint, ApplianceDriverType::NATIVE));
    }
    cache_.updateEndpoints(records);
    cache_.registerReachabilityListener("benchmark",
                                        [this](const std::string&, const std::string&, bool) {
                                          const std::lock_guard<std::mutex> lock(mutex_);
                                          worker_ = pthread_self();
                                          ++heard_;
                                          changed_.notify_all();
                                        });
    if (withTracker) {
      tracker_ = std::make_unique<EntityReachabilityTracker>(
          cache_, guard_, [this](const std::string&, bool reachable) {
            if (!reachable) {
              const std::lock_guard<std::mutex> lock(mutex_);
              ++heard_;
              changed_.notify_all();
            }
          });
    }
  }

  ~TrackerRig() {
    if (tracker_) {
      tracker_->close();
    }
    guard_->close();
  }

  TrackerRig(const TrackerRig&) = delete;
  TrackerRig& operator=(const TrackerRig&) = delete;

  // Event `index`: an entity's sole endpoint goes unreachable. Returns when
  // the listener (and the tracker) have heard it, or false after a timeout.
  bool sendEvent(std::size_t index) {
    const EndpointInfo& endpoint = *eventEndpoints_[index % eventEndpoints_.size()];
    uint64_t expected = 0;
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      expected = heard_ + (tracker_ ? 2 : 1);
    }
    checker_->publishUnreachable(endpoint.endpointId);
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, EVENT_TIMEOUT, [&] { return heard_ >= expected; });
  }

  // Makes the entity of event `index` reachable again, as the host does
  // (through the tracker when there is one). Not the worker's work.
  void restore(std::size_t index) {
    const EndpointInfo& endpoint = *eventEndpoints_[index % eventEndpoints_.size()];
    const std::vector<CachedEndpoint> record{asCached(endpoint, ApplianceDriverType::NATIVE)};
    if (tracker_) {
      tracker_->updateEndpoints(record);
    } else {
      cache_.updateEndpoints(record);
    }
  }

  // CPU time that the cache's worker has used so far; zero before the first
  // event reached it.
  std::chrono::nanoseconds workerCpu() {
    pthread_t worker{};
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      if (heard_ == 0) {
        return std::chrono::nanoseconds(0);
      }
      worker = worker_;
    }
    clockid_t clock{};
    timespec now{};
    if (pthread_getcpuclockid(worker, &clock) != 0 || clock_gettime(clock, &now) != 0) {
      return std::chrono::nanoseconds(0);
    }
    return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
  }

 private:
  const std::vector<EndpointInfo> endpoints_;
  std::vector<const EndpointInfo*> eventEndpoints_;
  EmptyProvider provider_;
  const std::shared_ptr<EventChecker> checker_;
  const std::shared_ptr<ReachabilityCheckerGuard> guard_;
  ReachabilityCache cache_;
  std::unique_ptr<EntityReachabilityTracker> tracker_;
  std::mutex mutex_;
  std::condition_variable changed_;
  uint64_t heard_ = 0;
  pthread_t worker_{};
};

// Arguments: the number of entities, and whether a tracker is attached.
void trackerEventCost(benchmark::State& state) {
  TrackerRig rig(static_cast<std::size_t>(state.range(0)), state.range(1) != 0);
  // The first event finds the worker; the ones after it are measured.
  std::size_t index = 0;
  if (!rig.sendEvent(index)) {
    state.SkipWithError("listener not called in time");
    return;
  }
  rig.restore(index++);
  const std::chrono::nanoseconds cpuBefore = rig.workerCpu();
  for (auto _ : state) {
    const auto start = std::chrono::steady_clock::now();
    if (!rig.sendEvent(index)) {
      state.SkipWithError("listener not called in time");
      break;
    }
    state.SetIterationTime(
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    state.PauseTiming();
    rig.restore(index++);
    state.ResumeTiming();
  }
  const std::chrono::duration<double, std::micro> workerCpu = rig.workerCpu() - cpuBefore;
  state.counters["worker_cpu_us"] =
      benchmark::Counter(workerCpu.count(), benchmark::Counter::kAvgIterations);
}

BENCHMARK(trackerEventCost)
    ->Name("tracker/eventCost")
    ->Args({1000, 0})
    ->Args({1000, 1})
    ->Args({10000, 0})
    ->Args({10000, 1})
    ->Iterations(500)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace veranda::reachabilityCache::bench
