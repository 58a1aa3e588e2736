// Entry point of the benchmark binaries: runs the registered benchmarks with
// the usual console output, then prints the figures of BENCHMARKS.md (medians
// over repetitions and the ratios between them) as Markdown tables.
//
// Extra flag: --summary_out=<file> also writes the tables to <file>.
#include <benchmark/benchmark.h>

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

constexpr double kQueryGoal = 1.2;
constexpr double kScalingGoal = 1.2;
constexpr double kMemoryGoal = 4.0;

struct Result {
  double nanoseconds = 0;     // real time per iteration
  double cpuNanoseconds = 0;  // CPU time of the benchmark's thread per iteration
  std::map<std::string, double> counters;
  bool isMedian = false;
};

std::string fixed(double value, int decimals) {
  std::ostringstream text;
  text << std::fixed << std::setprecision(decimals) << value;
  return text.str();
}

std::string verdict(double ratio, double goal) { return ratio <= goal ? "met" : "missed"; }

class SummaryReporter : public benchmark::ConsoleReporter {
 public:
  explicit SummaryReporter(std::string summaryPath) : summaryPath_(std::move(summaryPath)) {}

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
  }

 private:
  // Keeps the median of each benchmark, or its single run without repetitions.
  void record(const Run& run) {
    if (run.error_occurred) {
      return;
    }
    const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
    if (run.run_type == Run::RT_Aggregate && !median) {
      return;
    }
    Result& result =
        results_[key(run.run_name.function_name, run.run_name.args, run.run_name.threads)];
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

  static double counter(const Result& result, const std::string& name) {
    const auto found = result.counters.find(name);
    return found == result.counters.end() ? 0 : found->second;
  }

  std::string summarize() const {
    std::ostringstream out;
    out << "## Summary (medians over repetitions)\n";
    queries(out);
    cycles(out);
    latency(out);
    contention(out);
    memory(out);
    return out.str();
  }

  void queries(std::ostream& out) const {
    std::ostringstream rows;
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
        rows << "| " << query << " | " << entities << " | " << fixed(cache->cpuNanoseconds, 0)
             << " | " << fixed(floor->cpuNanoseconds, 0) << " | " << fixed(ratio, 2) << " | "
             << verdict(ratio, kQueryGoal) << " |\n";
      }
    }
    if (rows.str().empty()) {
      return;
    }
    out << "\n### 1. Query cost against its floor (goal: ratio <= " << kQueryGoal << ")\n\n"
        << "| Query | Entities | Cache ns (CPU) | Floor ns (CPU) | Ratio | Goal |\n"
        << "|---|---:|---:|---:|---:|---|\n"
        << rows.str();
  }

  void cycles(std::ostream& out) const {
    std::ostringstream rows;
    for (const char* path : {"testChecker", "applianceDriverChecker"}) {
      const std::string function = std::string("cycle/") + path;
      const Result* previous = nullptr;
      for (const char* endpoints : {"1000", "10000", "100000"}) {
        const Result* result = find(function, endpoints);
        if (result == nullptr) {
          previous = nullptr;
          continue;
        }
        const double seconds = result->nanoseconds / 1e9;
        rows << "| " << path << " | " << endpoints << " | " << fixed(seconds * 1e3, 2) << " | "
             << fixed(std::stod(endpoints) / seconds, 0) << " | ";
        if (previous != nullptr) {
          const double scaling = result->nanoseconds / (10 * previous->nanoseconds);
          rows << fixed(scaling, 2) << " | " << verdict(scaling, kScalingGoal) << " |\n";
        } else {
          rows << "- | |\n";
        }
        previous = result;
      }
    }
    if (rows.str().empty()) {
      return;
    }
    out << "\n### 2. Periodic cycle scaling (goal: t(10N) / (10 t(N)) <= " << kScalingGoal
        << ")\n\n"
        << "| Check | Endpoints N | Cycle ms | Endpoints/s | t(N) / (10 t(N/10)) | Goal |\n"
        << "|---|---:|---:|---:|---:|---|\n"
        << rows.str();
  }

  void latency(std::ostream& out) const {
    std::ostringstream rows;
    for (const char* hosts : {"0", "2"}) {
      const Result* result = find("eventLatency/hostThreads", hosts);
      if (result == nullptr) {
        continue;
      }
      rows << "| " << hosts << " | " << fixed(counter(*result, "p50_us"), 1) << " | "
           << fixed(counter(*result, "p99_us"), 1) << " | "
           << fixed(counter(*result, "publish_p50_us"), 1) << " | "
           << fixed(counter(*result, "publish_p99_us"), 1) << " | "
           << fixed(counter(*result, "host_queries_per_s"), 0) << " |\n";
    }
    if (rows.str().empty()) {
      return;
    }
    out << "\n### 3. Event latency, driver thread to listener (microseconds)\n\n"
        << "| Host threads querying | Median | p99 | Median from publish call | p99 from publish "
           "call | Host queries/s |\n"
        << "|---:|---:|---:|---:|---:|---:|\n"
        << rows.str();
  }

  void contention(std::ostream& out) const {
    const Result* baseline = find("contention/idle", "", "threads:1");
    std::ostringstream rows;
    for (const char* mode : {"idle", "cyclesRunning"}) {
      for (const char* threads : {"threads:1", "threads:2"}) {
        const Result* result = find(std::string("contention/") + mode, "", threads);
        if (result == nullptr) {
          continue;
        }
        const double rate = counter(*result, "items_per_second");
        rows << "| " << mode << " | " << (threads + 8) << " | " << fixed(rate, 0) << " | ";
        rows << (baseline != nullptr ? fixed(rate / counter(*baseline, "items_per_second"), 2)
                                     : "-")
             << " | " << fixed(counter(*result, "switches_per_1k_queries"), 1) << " | "
             << fixed(counter(*result, "cycles_per_s"), 1) << " |\n";
      }
    }
    if (rows.str().empty()) {
      return;
    }
    out << "\n### 5. Contention: queries per second on 10 000 entities\n\n"
        << "| Cycles | Host threads | Queries/s (all threads) | vs idle, 1 thread | Context "
           "switches per 1000 queries | Cycles/s |\n"
        << "|---|---:|---:|---:|---:|---:|\n"
        << rows.str();
  }

  void memory(std::ostream& out) const {
    const Result* result = find("memory/store", "10000");
    if (result == nullptr) {
      return;
    }
    const double ratio = counter(*result, "ratio");
    out << "\n### 4. Memory per stored endpoint (goal: ratio <= " << kMemoryGoal << ")\n\n"
        << "| Entities | Endpoints | Bytes/endpoint | Payload/endpoint | Ratio | Live "
           "blocks/endpoint | Goal |\n"
        << "|---:|---:|---:|---:|---:|---:|---|\n"
        << "| 10000 | " << fixed(counter(*result, "endpoints"), 0) << " | "
        << fixed(counter(*result, "bytes_per_endpoint"), 1) << " | "
        << fixed(counter(*result, "payload_per_endpoint"), 1) << " | " << fixed(ratio, 2) << " | "
        << fixed(counter(*result, "blocks_per_endpoint"), 1) << " | " << verdict(ratio, kMemoryGoal)
        << " |\n";
  }

  std::string summaryPath_;
  std::map<std::string, Result> results_;
};

}  // namespace

int main(int argc, char** argv) {
  std::string summaryPath;
  std::vector<char*> arguments;
  constexpr const char* kSummaryFlag = "--summary_out=";
  for (int i = 0; i < argc; ++i) {
    if (std::strncmp(argv[i], kSummaryFlag, std::strlen(kSummaryFlag)) == 0) {
      summaryPath = argv[i] + std::strlen(kSummaryFlag);
    } else {
      arguments.push_back(argv[i]);
    }
  }
  int count = static_cast<int>(arguments.size());
  benchmark::Initialize(&count, arguments.data());
  if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) {
    return 1;
  }
  SummaryReporter reporter(summaryPath);
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  return 0;
}
