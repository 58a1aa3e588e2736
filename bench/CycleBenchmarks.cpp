// Periodic cycle scaling: one full cycle (provider list, stale sweep, a check
// answered at once, results applied with listener notifications) for 1 000,
// 10 000 and 100 000 endpoints, and beside it the cycle's floor: the same
// cycle with only the work any cycle needs. Time is the cycle's wall time;
// counter cpu_ms is the CPU time of the thread that ran the cycle, which other
// processes on a shared machine do not add to.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "BenchData.h"
#include "CycleFloor.h"
#include "CycleRig.h"

namespace veranda::reachabilityCache::bench {
namespace {

// Share of the store that the provider stops naming before each cycle.
constexpr std::size_t STALE_DIVISOR = 100;

// Rigs live for the whole run: building a large one takes longer than its
// cycles, and repetitions of different benchmarks are interleaved.
CycleRig& rigFor(CheckPath path, std::size_t endpointCount) {
  static std::map<std::pair<CheckPath, std::size_t>, std::unique_ptr<CycleRig>> rigs;
  std::unique_ptr<CycleRig>& rig = rigs[{path, endpointCount}];
  if (!rig) {
    rig = std::make_unique<CycleRig>(firstEndpoints(endpointCount), path);
    // Reach the steady state: every endpoint stored, then alternately
    // reachable and unreachable.
    rig->runCycle();
    rig->runCycle();
  }
  return *rig;
}

void runCycles(benchmark::State& state, CheckPath path) {
  const auto endpointCount = static_cast<std::size_t>(state.range(0));
  CycleRig& rig = rigFor(path, endpointCount);
  const uint64_t notificationsBefore = rig.notifications();
  double cpuSeconds = 0;
  for (auto _ : state) {
    rig.addStaleEndpoints(std::max<std::size_t>(1, endpointCount / STALE_DIVISOR));
    const auto elapsed = rig.runCycle();
    if (elapsed.count() < 0) {
      state.SkipWithError("cycle did not finish");
      break;
    }
    state.SetIterationTime(elapsed.count());
    // The cycle before this one, of the same kind over an even number of them.
    cpuSeconds += rig.previousCycleCpu().count();
  }
  state.counters["cpu_ms"] =
      benchmark::Counter(cpuSeconds * 1e3, benchmark::Counter::kAvgIterations);
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(endpointCount));
  state.counters["endpoints"] = static_cast<double>(endpointCount);
  state.counters["notifications"] =
      benchmark::Counter(static_cast<double>(rig.notifications() - notificationsBefore),
                         benchmark::Counter::kAvgIterations);
}

CycleFloor& floorFor(std::size_t endpointCount) {
  static std::map<std::size_t, std::unique_ptr<CycleFloor>> floors;
  std::unique_ptr<CycleFloor>& floor = floors[endpointCount];
  if (!floor) {
    floor = std::make_unique<CycleFloor>(firstEndpoints(endpointCount));
    floor->runCycle();
    floor->runCycle();
  }
  return *floor;
}

void runFloorCycles(benchmark::State& state) {
  const auto endpointCount = static_cast<std::size_t>(state.range(0));
  CycleFloor& floor = floorFor(endpointCount);
  const uint64_t notificationsBefore = floor.notifications();
  double cpuSeconds = 0;
  for (auto _ : state) {
    floor.addStaleEndpoints(std::max<std::size_t>(1, endpointCount / STALE_DIVISOR));
    const auto start = std::chrono::steady_clock::now();
    const auto cpuStart = threadCpuTime();
    floor.runCycle();
    cpuSeconds += (threadCpuTime() - cpuStart).count();
    state.SetIterationTime(
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
  }
  state.counters["cpu_ms"] =
      benchmark::Counter(cpuSeconds * 1e3, benchmark::Counter::kAvgIterations);
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(endpointCount));
  state.counters["endpoints"] = static_cast<double>(endpointCount);
  state.counters["notifications"] =
      benchmark::Counter(static_cast<double>(floor.notifications() - notificationsBefore),
                         benchmark::Counter::kAvgIterations);
}

// An even number of cycles, so that reachable and unreachable answers weigh
// the same in every run: about 100 000 endpoints' worth, at least two.
int64_t cyclesFor(int64_t endpointCount) {
  return std::max<int64_t>(2, 100000 / endpointCount) & ~int64_t{1};
}

const bool REGISTERED = [] {
  for (const auto& [name, path] :
       {std::pair{"testChecker", CheckPath::TEST_CHECKER},
        std::pair{"applianceDriverChecker", CheckPath::APPLIANCE_DRIVER}}) {
    for (const int64_t endpoints : {1000, 10000, 100000}) {
      benchmark::RegisterBenchmark(
          (std::string("cycle/") + name).c_str(),
          [path = path](benchmark::State& state) { runCycles(state, path); })
          ->Arg(endpoints)
          ->Iterations(cyclesFor(endpoints))
          ->UseManualTime()
          ->Unit(benchmark::kMillisecond);
    }
  }
  for (const int64_t endpoints : {1000, 10000, 100000}) {
    benchmark::RegisterBenchmark("cycle/floor", runFloorCycles)
        ->Arg(endpoints)
        ->Iterations(cyclesFor(endpoints))
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);
  }
  return true;
}();

}  // namespace
}  // namespace veranda::reachabilityCache::bench
