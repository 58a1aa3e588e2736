// Entry point of the benchmark binaries: runs the registered benchmarks with
// the usual console output, then prints the figures of BENCHMARKS.md (medians
// over repetitions, the ratios between them and every goal's verdict) as
// Markdown tables.
//
// Extra flags:
//   --summary_out=<file>  also writes the tables to <file>;
//   --goals_out=<file>    writes one line per goal: id, goal, result and
//                         verdict, separated by tabs, for the run's report.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace {

// The goals, as the verdicts test them.
constexpr double QUERY_GOAL = 1.2;            // query time over its floor, at most
constexpr double CYCLE_FLOOR_GOAL = 1.5;      // cycle time over the cycle's floor, at most
constexpr double SCALING_MARGIN = 0.2;        // cycle t(10N) / (10 t(N)) over the floor's, at most
constexpr double LATENCY_GOAL_MICROS = 100;   // event to listener p99, host threads at a fifth
                                              // of a core each, at most
constexpr double IDLE_CONTENTION_GOAL = 1.5;  // two idle host threads over one, at least
constexpr double CYCLING_CONTENTION_GOAL = 1.2;  // two host threads over one while cycles run
constexpr double TRACKER_GOAL = 1.3;  // tracker's cost per event, 10 000 over 1 000 entities
constexpr double MEMORY_GOAL = 4.0;   // stored bytes over payload, at most
// Allocations per endpoint of the two steady cycles (provider's copy
// included) when the cycle's work began to be cut down further, measured with
// allocations/cycle: the counts may go down, never up.
constexpr double ALLOCATIONS_BEFORE_REACHABLE = 52.5;
constexpr double ALLOCATIONS_BEFORE_UNREACHABLE = 40.1;

struct Result {
  double nanoseconds = 0;     // real time per iteration
  double cpuNanoseconds = 0;  // CPU time of the benchmark's thread per iteration
  std::map<std::string, double> counters;
  std::map<std::string, double> spreads;  // coefficient of variation of each counter
  bool isMedian = false;
};

std::string fixed(double value, int decimals) {
  std::ostringstream text;
  text << std::fixed << std::setprecision(decimals) << value;
  return text.str();
}

const char* atMost(double value, double goal) { return value <= goal ? "met" : "missed"; }
const char* atLeast(double value, double goal) { return value >= goal ? "met" : "missed"; }

// One goal's outcome in this run.
struct Verdict {
  std::string id;
  std::string goal;
  std::string result;
  std::string verdict;
};

// The allocator this process runs on: Scudo when its library is loaded (as
// LD_PRELOAD does), the C library's malloc otherwise.
std::string allocatorName() {
  std::ifstream maps("/proc/self/maps");
  std::string line;
  while (std::getline(maps, line)) {
    const std::size_t name = line.find("libclang_rt.scudo");
    if (name != std::string::npos) {
      return "Scudo (" + line.substr(name) + ")";
    }
  }
  return "glibc malloc";
}

class SummaryReporter : public benchmark::ConsoleReporter {
 public:
  SummaryReporter(std::string summaryPath, std::string goalsPath)
      : summaryPath_(std::move(summaryPath)), goalsPath_(std::move(goalsPath)) {}

  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      record(run);
    }
  }

  void Finalize() override {
    ConsoleReporter::Finalize();
    const std::string summary = summarize();
    GetOutputStream() << "\n" << summary << std::flush;
    if (!summaryPath_.empty()) {
      std::ofstream(summaryPath_) << summary;
    }
    if (!goalsPath_.empty()) {
      std::ofstream goals(goalsPath_);
      for (const Verdict& verdict : verdicts_) {
        goals << verdict.id << '\t' << verdict.goal << '\t' << verdict.result << '\t'
              << verdict.verdict << '\n';
      }
    }
  }

 private:
  // Keeps the median of each benchmark, or its single run without repetitions.
  void record(const Run& run) {
    if (run.error_occurred) {
      return;
    }
    Result& result =
        results_[key(run.run_name.function_name, run.run_name.args, run.run_name.threads)];
    const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
    if (run.run_type == Run::RT_Aggregate && run.aggregate_name == "cv") {
      for (const auto& [name, counter] : run.counters) {
        result.spreads[name] = counter.value;
      }
      return;
    }
    if (run.run_type == Run::RT_Aggregate && !median) {
      return;
    }
    if (result.isMedian && !median) {
      return;
    }
    result.isMedian = median;
    const double toNanoseconds = 1e9 / benchmark::GetTimeUnitMultiplier(run.time_unit);
    result.nanoseconds = run.GetAdjustedRealTime() * toNanoseconds;
    result.cpuNanoseconds = run.GetAdjustedCPUTime() * toNanoseconds;
    result.counters.clear();
    for (const auto& [name, counter] : run.counters) {
      result.counters[name] = counter.value;
    }
  }

  static std::string key(const std::string& function, const std::string& args,
                         const std::string& threads) {
    return function + "|" + args + "|" + threads;
  }

  const Result* find(const std::string& function, const std::string& args,
                     const std::string& threads = "") const {
    const auto found = results_.find(key(function, args, threads));
    return found == results_.end() ? nullptr : &found->second;
  }

  // " (cv N %)" when repetitions varied by more than 10 %, else "".
  static std::string spread(const Result& result, const std::string& name) {
    const auto found = result.spreads.find(name);
    if (found == result.spreads.end() || found->second <= 0.1) {
      return "";
    }
    return " (cv " + fixed(100 * found->second, 0) + " %)";
  }

  static double counter(const Result& result, const std::string& name) {
    const auto found = result.counters.find(name);
    return found == result.counters.end() ? 0 : found->second;
  }

  void addVerdict(std::string id, std::string goal, std::string result, std::string verdict) {
    verdicts_.push_back({std::move(id), std::move(goal), std::move(result), std::move(verdict)});
  }

  std::string summarize() {
    std::ostringstream out;
    out << "\nAllocator: " << allocatorName() << "\n";
    queries(out);
    cycles(out);
    latency(out);
    contention(out);
    tracker(out);
    memory(out);
    allocations(out);
    return out.str();
  }

  void queries(std::ostream& out) {
    std::ostringstream rows;
    double lowest = 0;
    double highest = 0;
    int cases = 0;
    int met = 0;
    for (const char* query : {"isEntityReachable", "isCapabilityReachable",
                              "getEndpointIdForEntity", "getEndpointsForEntity"}) {
      for (const char* entities : {"100", "10000", "100000"}) {
        const std::string base = std::string("query/") + query;
        const Result* cache = find(base + "/cache", entities);
        const Result* floor = find(base + "/floor", entities);
        if (cache == nullptr || floor == nullptr) {
          continue;
        }
        // CPU time: on a shared machine it leaves out the time other processes
        // took the core away, which wall time of a single thread includes.
        const double ratio = cache->cpuNanoseconds / floor->cpuNanoseconds;
        lowest = cases == 0 ? ratio : std::min(lowest, ratio);
        highest = cases == 0 ? ratio : std::max(highest, ratio);
        ++cases;
        met += ratio <= QUERY_GOAL ? 1 : 0;
        rows << "| " << query << " | " << entities << " | " << fixed(cache->cpuNanoseconds, 0)
             << " | " << fixed(floor->cpuNanoseconds, 0) << " | " << fixed(ratio, 2) << " | "
             << atMost(ratio, QUERY_GOAL) << " |\n";
      }
    }
    if (cases == 0) {
      return;
    }
    out << "\n### Query time against its floor (goal: ratio <= " << fixed(QUERY_GOAL, 1) << ")\n\n"
        << "| Query | Entities | Cache ns (CPU) | Floor ns (CPU) | Ratio | Goal |\n"
        << "|---|---:|---:|---:|---:|---|\n"
        << rows.str();
    addVerdict("query", "Query time over its floor <= " + fixed(QUERY_GOAL, 1),
               fixed(lowest, 2) + " to " + fixed(highest, 2) + " (" + std::to_string(met) + " of " +
                   std::to_string(cases) + " cases met)",
               met == cases ? "met" : "missed");
    layout(out);
  }

  // `part` as a share of `whole`, when `whole` stands out of the noise of
  // timing `base` (more than 5 % of it).
  static std::string share(double part, double whole, double base) {
    if (whole <= 0.05 * base) {
      return "no difference beyond noise";
    }
    return fixed(100 * part / whole, 0) + " %";
  }

  // What the stored record's layout (a map of driver types per endpoint)
  // costs where records no longer fit in the caches: the cache against the
  // lean floor (the least work), and the lean floor with the record's layout.
  void layout(std::ostream& out) const {
    std::ostringstream rows;
    for (const char* query : {"isEntityReachable", "isCapabilityReachable",
                              "getEndpointIdForEntity", "getEndpointsForEntity"}) {
      const std::string base = std::string("query/") + query;
      const Result* cache = find(base + "/cache", "100000");
      const Result* lean = find(base + "/leanFloor", "100000");
      const Result* driverMap = find(base + "/leanFloorDriverMap", "100000");
      if (cache == nullptr || lean == nullptr || driverMap == nullptr) {
        continue;
      }
      const double gap = cache->cpuNanoseconds - lean->cpuNanoseconds;
      const double layoutCost = driverMap->cpuNanoseconds - lean->cpuNanoseconds;
      rows << "| " << query << " | " << fixed(cache->cpuNanoseconds, 0) << " | "
           << fixed(lean->cpuNanoseconds, 0) << " | " << fixed(driverMap->cpuNanoseconds, 0)
           << " | " << fixed(cache->cpuNanoseconds / lean->cpuNanoseconds, 2) << " | "
           << fixed(gap, 0) << " | " << fixed(layoutCost, 0) << " | "
           << share(layoutCost, gap, lean->cpuNanoseconds) << " |\n";
    }
    if (rows.str().empty()) {
      return;
    }
    out << "\n### The least work and the record layout at 100 000 entities (ns, CPU)\n\n"
        << "| Query | Cache | Lean floor | Lean floor, record with a map of driver types | Cache "
           "over lean floor | Cache - lean floor | Layout cost | Share of the difference |\n"
        << "|---|---:|---:|---:|---:|---:|---:|---:|\n"
        << rows.str();
  }

  // The cycle against its floor, on the CPU time of the thread that runs each
  // (the updater's, the benchmark's for the floor), which other processes on
  // a shared machine do not add to; wall time is shown beside it.
  void cycles(std::ostream& out) {
    static const char* const SIZES[] = {"1000", "10000", "100000"};
    std::ostringstream rows;
    std::ostringstream ratios;
    std::ostringstream steps;
    bool ratiosMet = true;
    bool stepsMet = true;
    for (const char* path : {"testChecker", "applianceDriverChecker"}) {
      const Result* previous = nullptr;
      const Result* previousFloor = nullptr;
      for (const char* endpoints : SIZES) {
        const Result* result = find(std::string("cycle/") + path, endpoints);
        const Result* floor = find("cycle/floor", endpoints);
        if (result == nullptr || floor == nullptr) {
          previous = nullptr;
          continue;
        }
        const double cpuMs = counter(*result, "cpu_ms");
        const double floorMs = counter(*floor, "cpu_ms");
        const double ratio = cpuMs / floorMs;
        ratiosMet = ratiosMet && ratio <= CYCLE_FLOOR_GOAL;
        ratios << (ratios.str().empty() ? "" : ", ") << path << " " << endpoints << ": "
               << fixed(ratio, 2);
        rows << "| " << path << " | " << endpoints << " | " << fixed(result->nanoseconds / 1e6, 2)
             << " | " << fixed(cpuMs, 2) << " | " << fixed(floorMs, 2) << " | " << fixed(ratio, 2)
             << " | " << atMost(ratio, CYCLE_FLOOR_GOAL) << " | ";
        if (previous != nullptr && previousFloor != nullptr) {
          const double scaling = cpuMs / (10 * counter(*previous, "cpu_ms"));
          const double floorScaling = floorMs / (10 * counter(*previousFloor, "cpu_ms"));
          const bool met = scaling <= floorScaling + SCALING_MARGIN;
          stepsMet = stepsMet && met;
          steps << (steps.str().empty() ? "" : ", ") << path << " to " << endpoints << ": "
                << fixed(scaling, 2) << " (floor " << fixed(floorScaling, 2) << ")";
          rows << fixed(scaling, 2) << " | " << fixed(floorScaling, 2) << " | "
               << (met ? "met" : "missed") << " |\n";
        } else {
          rows << "- | - | |\n";
        }
        previous = result;
        previousFloor = floor;
      }
    }
    if (rows.str().empty()) {
      return;
    }
    out << "\n### Periodic cycle against its floor (CPU time; goals: cycle over floor <= "
        << fixed(CYCLE_FLOOR_GOAL, 1) << ", t(10N) / (10 t(N)) at most the floor's + "
        << fixed(SCALING_MARGIN, 1) << ")\n\n"
        << "| Check | Endpoints N | Cycle ms (wall) | Cycle ms (CPU) | Floor ms (CPU) | Cycle over "
           "floor | Goal | t(N) / (10 t(N/10)) | Same, floor | Goal |\n"
        << "|---|---:|---:|---:|---:|---:|---|---:|---:|---|\n"
        << rows.str();
    addVerdict("cycleFloor",
               "Cycle time over the cycle's floor <= " + fixed(CYCLE_FLOOR_GOAL, 1) +
                   " at every size, CPU time",
               ratios.str(), ratiosMet ? "met" : "missed");
    if (!steps.str().empty()) {
      addVerdict("scaling",
                 "Cycle t(10N) / (10 t(N)) at most the floor's + " + fixed(SCALING_MARGIN, 1) +
                     ", CPU time",
                 steps.str(), stepsMet ? "met" : "missed");
    }
  }

  // Host threads querying: none; two flat out; two at about a fifth of a core.
  void latency(std::ostream& out) {
    struct Case {
      const char* args;
      const char* hosts;
    };
    static const Case CASES[] = {
        {"0/100", "none"}, {"2/100", "2, flat out"}, {"2/20", "2, a fifth of a core each"}};
    std::ostringstream rows;
    for (const Case& each : CASES) {
      const Result* result = find("eventLatency/hostThreads", each.args);
      if (result == nullptr) {
        continue;
      }
      const double p99 = counter(*result, "p99_us");
      const double coreWait = counter(*result, "core_wait_us_per_event");
      rows << "| " << each.hosts << " | " << fixed(100 * counter(*result, "host_core_share"), 0)
           << " % | " << fixed(counter(*result, "p50_us"), 1) << " | " << fixed(p99, 1)
           << spread(*result, "p99_us") << " | " << fixed(counter(*result, "publish_p50_us"), 1)
           << " | " << fixed(counter(*result, "publish_p99_us"), 1) << " | " << fixed(coreWait, 1)
           << " | " << fixed(counter(*result, "host_queries_per_s"), 0) << " |\n";
      if (std::string(each.args) == "2/20") {
        addVerdict("latency",
                   "Event to listener, p99, two host threads querying at a fifth of a core each "
                   "<= " +
                       fixed(LATENCY_GOAL_MICROS, 0) + " us",
                   fixed(p99, 1) + " us", atMost(p99, LATENCY_GOAL_MICROS));
      } else if (std::string(each.args) == "2/100") {
        addVerdict("latencyFlatOut",
                   "Event to listener, p99, two host threads querying flat out (reported: three "
                   "runnable threads on two cores, the scheduler bounds it)",
                   fixed(p99, 1) + " us; the event's threads waited " + fixed(coreWait, 1) +
                       " us per event for a core",
                   "reported");
      }
    }
    if (rows.str().empty()) {
      return;
    }
    out << "\n### Event latency, driver thread to listener (microseconds; goal: p99 with two "
           "host threads at a fifth of a core each <= "
        << fixed(LATENCY_GOAL_MICROS, 0) << ")\n\n"
        << "| Host threads querying | Core share each | Median | p99 | Median from publish call | "
           "p99 from publish call | Wait for a core per event | Host queries/s |\n"
        << "|---|---:|---:|---:|---:|---:|---:|---:|\n"
        << rows.str();
  }

  void contention(std::ostream& out) {
    std::ostringstream rows;
    for (const char* mode : {"idle", "cyclesRunning"}) {
      const Result* one = find(std::string("contention/") + mode, "", "threads:1");
      for (const char* threads : {"threads:1", "threads:2", "threads:4"}) {
        const Result* result = find(std::string("contention/") + mode, "", threads);
        if (result == nullptr) {
          continue;
        }
        const double rate = counter(*result, "items_per_second");
        rows << "| " << mode << " | " << (threads + 8) << " | " << fixed(rate, 0)
             << spread(*result, "items_per_second") << " | "
             << (one != nullptr ? fixed(rate / counter(*one, "items_per_second"), 2) : "-") << " | "
             << fixed(counter(*result, "switches_per_1k_queries"), 1) << " | "
             << fixed(counter(*result, "cycles_per_s"), 1) << " |\n";
      }
      const Result* two = find(std::string("contention/") + mode, "", "threads:2");
      if (one != nullptr && two != nullptr) {
        const double ratio = counter(*two, "items_per_second") / counter(*one, "items_per_second");
        const bool idle = std::string(mode) == "idle";
        const double goal = idle ? IDLE_CONTENTION_GOAL : CYCLING_CONTENTION_GOAL;
        addVerdict(idle ? "contentionIdle" : "contentionCycling",
                   std::string(idle ? "Idle" : "While cycles run") +
                       ", two host threads' queries over one thread's >= " + fixed(goal, 1),
                   fixed(ratio, 2), atLeast(ratio, goal));
      }
    }
    if (rows.str().empty()) {
      return;
    }
    out << "\n### Contention: queries per second on 10 000 entities (goals: two threads over "
           "one >= "
        << fixed(IDLE_CONTENTION_GOAL, 1) << " idle, >= " << fixed(CYCLING_CONTENTION_GOAL, 1)
        << " while cycles run)\n\n"
        << "| Cycles | Host threads | Queries/s (all threads) | vs one thread, same cycles | "
           "Context switches per 1000 queries | Cycles/s |\n"
        << "|---|---:|---:|---:|---:|---:|\n"
        << rows.str();
  }

  // The worker's CPU time per connectivity event without and with a tracker;
  // the difference is the tracker's.
  void tracker(std::ostream& out) {
    std::ostringstream rows;
    double costs[2] = {0, 0};
    int found = 0;
    for (const char* entities : {"1000", "10000"}) {
      const Result* without = find("tracker/eventCost", std::string(entities) + "/0");
      const Result* with = find("tracker/eventCost", std::string(entities) + "/1");
      if (without == nullptr || with == nullptr) {
        continue;
      }
      const double bare = counter(*without, "worker_cpu_us");
      const double tracked = counter(*with, "worker_cpu_us");
      costs[found++] = tracked - bare;
      rows << "| " << entities << " | " << fixed(bare, 1) << " | " << fixed(tracked, 1) << " | "
           << fixed(tracked - bare, 1) << " |\n";
    }
    if (found < 2) {
      return;
    }
    const double ratio = costs[1] / costs[0];
    out << "\n### Tracker: the cache worker's CPU time per connectivity event (microseconds; "
           "goal: the tracker's cost at 10 000 entities <= "
        << fixed(TRACKER_GOAL, 1) << " times its cost at 1 000)\n\n"
        << "| Entities | Without tracker | With tracker | Tracker's cost |\n"
        << "|---:|---:|---:|---:|\n"
        << rows.str()
        << "\nTracker's cost at 10 000 entities over its cost at 1 000: " << fixed(ratio, 2) << " ("
        << atMost(ratio, TRACKER_GOAL) << ").\n";
    addVerdict("tracker",
               "Tracker's cost per connectivity event, 10 000 entities over 1 000 <= " +
                   fixed(TRACKER_GOAL, 1),
               fixed(ratio, 2) + " (" + fixed(costs[0], 1) + " and " + fixed(costs[1], 1) + " us)",
               atMost(ratio, TRACKER_GOAL));
  }

  void memory(std::ostream& out) {
    const Result* result = find("memory/store", "10000");
    if (result == nullptr) {
      return;
    }
    const double ratio = counter(*result, "ratio");
    out << "\n### Memory per stored endpoint (goal: ratio <= " << fixed(MEMORY_GOAL, 1) << ")\n\n"
        << "| Entities | Endpoints | Bytes/endpoint | Payload/endpoint | Ratio | Live "
           "blocks/endpoint | Goal |\n"
        << "|---:|---:|---:|---:|---:|---:|---|\n"
        << "| 10000 | " << fixed(counter(*result, "endpoints"), 0) << " | "
        << fixed(counter(*result, "bytes_per_endpoint"), 1) << " | "
        << fixed(counter(*result, "payload_per_endpoint"), 1) << " | " << fixed(ratio, 2) << " | "
        << fixed(counter(*result, "blocks_per_endpoint"), 1) << " | " << atMost(ratio, MEMORY_GOAL)
        << " |\n";
    addVerdict("memory", "Stored bytes per endpoint over payload <= " + fixed(MEMORY_GOAL, 1),
               fixed(ratio, 2), atMost(ratio, MEMORY_GOAL));
  }

  // Judged on the highest count of any size.
  void allocations(std::ostream& out) {
    std::ostringstream rows;
    double reachable = 0;
    double unreachable = 0;
    for (const char* endpoints : {"1000", "10000"}) {
      const Result* result = find("allocations/cycle", endpoints);
      if (result == nullptr) {
        continue;
      }
      const double provider = counter(*result, "provider");
      const double reachableHere = counter(*result, "reachable_cycle");
      const double unreachableHere = counter(*result, "unreachable_cycle");
      reachable = std::max(reachable, reachableHere);
      unreachable = std::max(unreachable, unreachableHere);
      rows << "| " << endpoints << " | " << fixed(reachableHere, 1) << " | "
           << fixed(unreachableHere, 1) << " | " << fixed(provider, 1) << " | "
           << fixed(reachableHere - provider, 1) << " | " << fixed(unreachableHere - provider, 1)
           << " |\n";
    }
    if (rows.str().empty()) {
      return;
    }
    out << "\n### Allocations per endpoint of a steady periodic cycle (library's checker; goal: "
           "never more than "
        << fixed(ALLOCATIONS_BEFORE_REACHABLE, 1) << " and "
        << fixed(ALLOCATIONS_BEFORE_UNREACHABLE, 1) << ")\n\n"
        << "| Endpoints | All reachable | None reachable | Of which the provider's copy | "
           "Library, all reachable | Library, none reachable |\n"
        << "|---:|---:|---:|---:|---:|---:|\n"
        << rows.str();
    addVerdict(
        "allocations",
        "Allocations per endpoint per steady cycle, never more than " +
            fixed(ALLOCATIONS_BEFORE_REACHABLE, 1) + " all reachable, " +
            fixed(ALLOCATIONS_BEFORE_UNREACHABLE, 1) + " none",
        fixed(reachable, 1) + " all reachable, " + fixed(unreachable, 1) + " none (highest)",
        reachable <= ALLOCATIONS_BEFORE_REACHABLE && unreachable <= ALLOCATIONS_BEFORE_UNREACHABLE
            ? "met"
            : "missed");
  }

  std::string summaryPath_;
  std::string goalsPath_;
  std::map<std::string, Result> results_;
  std::vector<Verdict> verdicts_;
};

// Takes `--<name>=<value>` out of the arguments; empty when absent.
std::string takeFlag(std::vector<char*>& arguments, const std::string& name) {
  const std::string prefix = "--" + name + "=";
  std::string value;
  arguments.erase(std::remove_if(arguments.begin(), arguments.end(),
                                 [&](const char* argument) {
                                   if (std::strncmp(argument, prefix.c_str(), prefix.size()) != 0) {
                                     return false;
                                   }
                                   value = argument + prefix.size();
                                   return true;
                                 }),
                  arguments.end());
  return value;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<char*> arguments(argv, argv + argc);
  const std::string summaryPath = takeFlag(arguments, "summary_out");
  const std::string goalsPath = takeFlag(arguments, "goals_out");
  int count = static_cast<int>(arguments.size());
  benchmark::Initialize(&count, arguments.data());
  if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) {
    return 1;
  }
  SummaryReporter reporter(summaryPath, goalsPath);
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  return 0;
}
