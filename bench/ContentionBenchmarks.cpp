// Contention: query throughput of one, two and four host threads on a store
// of 10 000 entities, idle and while periodic cycles over every endpoint run
// back to back on the updater's thread.
#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <string>
#include <thread>
#include <vector>

#include "BenchData.h"
#include "CycleRig.h"

namespace veranda::reachabilityCache::bench {
namespace {

constexpr std::size_t ENTITIES = 10000;

class ContentionEnvironment {
 public:
  ContentionEnvironment()
      : rig_(endpointsOfEntities(ENTITIES), CheckPath::TEST_CHECKER),
        ids_(queryIds(ENTITIES, 4096)) {
    rig_.runCycle();
    rig_.runCycle();
  }

  void startCycles() {
    stop_ = false;
    cycles_ = 0;
    cycler_ = std::thread([this] {
      while (!stop_.load()) {
        if (rig_.runCycle().count() >= 0) {
          cycles_.fetch_add(1);
        }
      }
    });
  }

  // Returns the number of cycles run since startCycles().
  uint64_t stopCycles() {
    stop_ = true;
    cycler_.join();
    return cycles_.load();
  }

  CacheCore& cache() { return rig_.cache(); }
  const std::vector<std::string>& ids() const { return ids_; }

 private:
  CycleRig rig_;
  const std::vector<std::string> ids_;
  std::thread cycler_;
  std::atomic<bool> stop_{false};
  std::atomic<uint64_t> cycles_{0};
};

// Context switches of the calling thread so far: waits for the store's mutex
// show up as voluntary ones.
long contextSwitches() {
  rusage usage{};
  getrusage(RUSAGE_THREAD, &usage);
  return usage.ru_nvcsw + usage.ru_nivcsw;
}

ContentionEnvironment& environment() {
  static ContentionEnvironment shared;
  return shared;
}

void queryThroughput(benchmark::State& state, bool cyclesRunning) {
  ContentionEnvironment& shared = environment();
  const bool leader = state.thread_index() == 0;
  const auto start = std::chrono::steady_clock::now();
  if (leader && cyclesRunning) {
    shared.startCycles();
  }
  CacheCore& cache = shared.cache();
  const std::vector<std::string>& ids = shared.ids();
  std::size_t next = static_cast<std::size_t>(state.thread_index()) * ids.size() /
                     static_cast<std::size_t>(state.threads());
  const long switchesBefore = contextSwitches();
  for (auto _ : state) {
    const std::string& id = ids[next % ids.size()];
    benchmark::DoNotOptimize(next % 2 == 0 ? cache.isEntityReachable(id)
                                           : cache.isCapabilityReachable(id, queriedCapability()));
    ++next;
  }
  state.SetItemsProcessed(state.iterations());
  state.counters["switches_per_1k_queries"] =
      benchmark::Counter(static_cast<double>(contextSwitches() - switchesBefore) * 1000.0 /
                             static_cast<double>(state.iterations()),
                         benchmark::Counter::kAvgThreads);
  if (leader && cyclesRunning) {
    const uint64_t cycles = shared.stopCycles();
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    state.counters["cycles_per_s"] = static_cast<double>(cycles) / seconds;
  }
}

const bool REGISTERED = [] {
  for (const bool cyclesRunning : {false, true}) {
    benchmark::RegisterBenchmark(
        cyclesRunning ? "contention/cyclesRunning" : "contention/idle",
        [cyclesRunning](benchmark::State& state) { queryThroughput(state, cyclesRunning); })
        ->Threads(1)
        ->Threads(2)
        ->Threads(4)
        ->UseRealTime()
        ->Unit(benchmark::kNanosecond);
  }
  return true;
}();

}  // namespace
}  // namespace veranda::reachabilityCache::bench
