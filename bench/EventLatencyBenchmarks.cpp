// Event latency: a connectivity event from the appliance driver's thread to
// the cache's listener, through the library's checker, the updater's executor
// and the store, with and without two host threads querying meanwhile: flat
// out, or each for about a fifth of a core, as a host's threads do.
#include <benchmark/benchmark.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <fstream>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "BenchData.h"
#include "CycleRig.h"
#include "applianceDriver/SimulatedApplianceDriver.h"
#include "reachabilityCache/ApplianceDriverReachabilityChecker.h"
#include "reachabilityCache/ReachabilityCache.h"

namespace veranda::reachabilityCache::bench {
namespace {

using applianceDriver::ApplianceDriverType;
using applianceDriver::DiscoveredDevice;
using applianceDriver::SimulatedApplianceDriver;
using applianceDriver::StateChangeEvent;
using Clock = std::chrono::steady_clock;

constexpr std::size_t ENTITIES = 1000;
constexpr std::chrono::seconds EVENT_TIMEOUT{10};
// Subscriptions are served in id order: this one hears each event first.
constexpr const char* PROBE_SUBSCRIPTION = "!latencyProbe";

// Answers every cycle with nothing to check, so that no cycle disturbs the
// events; the store is filled by the benchmark.
class EmptyProvider : public ICHRProvider {
 public:
  std::vector<EndpointInfo> queryEndpoints() override { return {}; }
};

// A host thread at a duty cycle below 100 % queries for this long, then
// sleeps for as long as keeps it at its share of a core.
constexpr std::chrono::microseconds BUSY_SLICE{1000};

// The calling thread's id as the kernel knows it.
pid_t threadId() { return static_cast<pid_t>(syscall(SYS_gettid)); }

// How long thread `tid` of this process has waited for a core so far, from
// the scheduler's statistics (its second field, in ns); zero where the kernel
// does not keep them.
std::chrono::nanoseconds timeWaitingForCore(pid_t tid) {
  std::ifstream stats("/proc/self/task/" + std::to_string(tid) + "/schedstat");
  uint64_t onCore = 0;
  uint64_t waiting = 0;
  if (!(stats >> onCore >> waiting)) {
    return std::chrono::nanoseconds(0);
  }
  return std::chrono::nanoseconds(waiting);
}

double percentile(std::vector<double> samples, double fraction) {
  if (samples.empty()) {
    return 0;
  }
  std::sort(samples.begin(), samples.end());
  const auto rank = static_cast<std::size_t>(fraction * static_cast<double>(samples.size()));
  return samples[std::min(rank, samples.size() - 1)];
}

class LatencyRig {
 public:
  LatencyRig() : endpoints_(endpointsOfEntities(ENTITIES)) {
    // Only an entity's sole endpoint changes the entity's reachability both
    // ways, so only those carry events.
    for (std::size_t i = 0; i < endpoints_.size(); ++i) {
      const bool sharesEntity =
          (i > 0 && endpoints_[i - 1].entityId == endpoints_[i].entityId) ||
          (i + 1 < endpoints_.size() && endpoints_[i + 1].entityId == endpoints_[i].entityId);
      if (!sharesEntity) {
        eventEndpoints_.push_back(&endpoints_[i]);
      }
    }
    for (const EndpointInfo& endpoint : endpoints_) {
      DiscoveredDevice device;
      device.endpointId = endpoint.endpointId;
      device.entityId = endpoint.entityId;
      device.adapterName = endpoint.adapterName;
      device.isReachable = true;
      device.driverType = ApplianceDriverType::NATIVE;
      driver_.upsertDevice(device);
    }
    driver_.subscribeStateChanges(
        {}, PROBE_SUBSCRIPTION,
        [this](const StateChangeEvent&) {
          eventStart_.store(Clock::now().time_since_epoch().count());
          driverThread_.store(threadId());
        },
        nullptr);
    checker_ = std::make_shared<ApplianceDriverReachabilityChecker>(driver_);
    cache_ = std::make_unique<ReachabilityCache>(
        &provider_, ReachabilityCache::Config{ENTITIES, std::chrono::seconds(365LL * 24 * 3600),
                                              true, checker_});
    std::vector<CachedEndpoint> records;
    for (const EndpointInfo& endpoint : endpoints_) {
      records.push_back(asCached(endpoint, ApplianceDriverType::NATIVE));
    }
    cache_->updateEndpoints(records);
    cache_->registerReachabilityListener(
        "latency", [this](const std::string& endpointId, const std::string&, bool reachable) {
          heard(endpointId, reachable);
        });
  }

  ~LatencyRig() {
    stopHostThreads();
    driver_.waitUntilIdle(std::chrono::milliseconds(10000));
    cache_.reset();
    driver_.unsubscribeStateChanges(PROBE_SUBSCRIPTION);
    checker_.reset();
  }

  // Starts `count` host threads that query for `dutyPercent` of their time
  // (100: without pause).
  void startHostThreads(std::size_t count, int dutyPercent) {
    const auto pause = BUSY_SLICE * (100 - dutyPercent) / dutyPercent;
    for (std::size_t i = 0; i < count; ++i) {
      hosts_.emplace_back([this, i, pause] {
        const std::vector<std::string> ids = queryIds(ENTITIES, 1024 + i);
        std::size_t next = 0;
        auto sliceEnd = Clock::now() + BUSY_SLICE;
        while (!stopHosts_.load(std::memory_order_relaxed)) {
          const std::string& id = ids[next++ % ids.size()];
          benchmark::DoNotOptimize(next % 2 == 0
                                       ? cache_->isEntityReachable(id)
                                       : cache_->isCapabilityReachable(id, queriedCapability()));
          hostQueries_.fetch_add(1, std::memory_order_relaxed);
          if (pause.count() > 0 && next % 16 == 0 && Clock::now() >= sliceEnd) {
            std::this_thread::sleep_for(pause);
            sliceEnd = Clock::now() + BUSY_SLICE;
          }
        }
        hostCpu_.fetch_add(
            std::chrono::duration_cast<std::chrono::nanoseconds>(threadCpuTime()).count());
      });
    }
  }

  void stopHostThreads() {
    stopHosts_ = true;
    for (std::thread& host : hosts_) {
      host.join();
    }
    hosts_.clear();
  }

  // Sends event `index`: even ones make an endpoint unreachable (after making
  // its entity reachable again, outside the measurement), odd ones make it
  // reachable; every one of them reaches the listener. Returns the times from
  // the driver's thread and from the publishing call to the listener, or
  // false when the listener was not called in time.
  bool sendEvent(std::size_t index, double& fromDriverThread, double& fromPublish) {
    const EndpointInfo& endpoint = *eventEndpoints_[(index / 2) % eventEndpoints_.size()];
    const bool reachable = index % 2 == 1;
    if (!reachable) {
      cache_->updateEndpoints({asCached(endpoint, ApplianceDriverType::NATIVE)});
    }
    {
      std::lock_guard<std::mutex> lock(mutex_);
      expectedEndpoint_ = endpoint.endpointId;
      expectedReachable_ = reachable;
      heardAt_.reset();
    }
    const Clock::time_point published = Clock::now();
    driver_.setReachable(endpoint.endpointId, reachable);
    std::unique_lock<std::mutex> lock(mutex_);
    if (!heardChanged_.wait_for(lock, EVENT_TIMEOUT, [&] { return heardAt_.has_value(); })) {
      return false;
    }
    const Clock::time_point driverThread{Clock::duration(eventStart_.load())};
    fromDriverThread = std::chrono::duration<double>(*heardAt_ - driverThread).count();
    fromPublish = std::chrono::duration<double>(*heardAt_ - published).count();
    return true;
  }

  uint64_t hostQueries() const { return hostQueries_.load(); }
  // CPU time of the host threads that have stopped.
  std::chrono::nanoseconds hostCpu() const { return std::chrono::nanoseconds(hostCpu_.load()); }
  // How long the threads that carry an event (the driver's and the cache's
  // worker) have waited for a core so far.
  std::chrono::nanoseconds carriersWaitingForCore() const {
    return timeWaitingForCore(driverThread_.load()) + timeWaitingForCore(workerThread_.load());
  }

 private:
  void heard(const std::string& endpointId, bool reachable) {
    const Clock::time_point now = Clock::now();
    workerThread_.store(threadId());
    std::lock_guard<std::mutex> lock(mutex_);
    if (endpointId == expectedEndpoint_ && reachable == expectedReachable_) {
      heardAt_ = now;
      heardChanged_.notify_all();
    }
  }

  SimulatedApplianceDriver driver_;
  const std::vector<EndpointInfo> endpoints_;
  std::vector<const EndpointInfo*> eventEndpoints_;
  EmptyProvider provider_;
  std::shared_ptr<ApplianceDriverReachabilityChecker> checker_;
  std::unique_ptr<ReachabilityCache> cache_;
  std::atomic<Clock::rep> eventStart_{0};
  std::mutex mutex_;
  std::condition_variable heardChanged_;
  std::string expectedEndpoint_;
  bool expectedReachable_ = false;
  std::optional<Clock::time_point> heardAt_;
  std::vector<std::thread> hosts_;
  std::atomic<bool> stopHosts_{false};
  std::atomic<uint64_t> hostQueries_{0};
  std::atomic<int64_t> hostCpu_{0};
  std::atomic<pid_t> driverThread_{0};
  std::atomic<pid_t> workerThread_{0};
};

// Arguments: the number of host threads querying, and the share of a core
// each takes, in percent.
void eventLatency(benchmark::State& state) {
  LatencyRig rig;
  const auto hostThreads = static_cast<std::size_t>(state.range(0));
  rig.startHostThreads(hostThreads, static_cast<int>(state.range(1)));
  // Once the first event has told which threads carry events.
  std::chrono::nanoseconds carriersWaitedBefore{0};
  std::vector<double> fromDriver;
  std::vector<double> fromPublish;
  std::size_t index = 0;
  const Clock::time_point start = Clock::now();
  for (auto _ : state) {
    double driverLatency = 0;
    double publishLatency = 0;
    if (!rig.sendEvent(index++, driverLatency, publishLatency)) {
      state.SkipWithError("listener not called in time");
      break;
    }
    state.SetIterationTime(driverLatency);
    if (index == 1) {
      carriersWaitedBefore = rig.carriersWaitingForCore();
    }
    fromDriver.push_back(driverLatency * 1e6);
    fromPublish.push_back(publishLatency * 1e6);
  }
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  const std::chrono::nanoseconds carriersWaited =
      rig.carriersWaitingForCore() - carriersWaitedBefore;
  rig.stopHostThreads();
  state.counters["p50_us"] = percentile(fromDriver, 0.50);
  state.counters["p99_us"] = percentile(fromDriver, 0.99);
  state.counters["publish_p50_us"] = percentile(fromPublish, 0.50);
  state.counters["publish_p99_us"] = percentile(fromPublish, 0.99);
  state.counters["host_queries_per_s"] = static_cast<double>(rig.hostQueries()) / seconds;
  state.counters["host_core_share"] = hostThreads == 0
                                          ? 0
                                          : std::chrono::duration<double>(rig.hostCpu()).count() /
                                                seconds / static_cast<double>(hostThreads);
  state.counters["core_wait_us_per_event"] =
      fromDriver.size() < 2 ? 0
                            : std::chrono::duration<double, std::micro>(carriersWaited).count() /
                                  static_cast<double>(fromDriver.size() - 1);
}

BENCHMARK(eventLatency)
    ->Name("eventLatency/hostThreads")
    ->Args({0, 100})
    ->Args({2, 100})
    ->Args({2, 20})
    ->Iterations(2000)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace veranda::reachabilityCache::bench
