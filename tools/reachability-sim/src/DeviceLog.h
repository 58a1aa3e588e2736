// The library's lines as a device's logcat shows them, stamped with the
// run's own clock: what reachability-sim writes on standard error in virtual
// time, so that reachability-trace reads its runs like a device's captures.
#pragma once

#include <chrono>
#include <cstdio>

#include "diagnostics/LogSink.h"
#include "metrics/MetricSinkForTesting.h"
#include "sync/Mutex.h"

namespace veranda::reachabilityCache::sim {

// Writes each line it takes to `out` in logcat's threadtime layout (the
// header on every line of a message), the time being the wall-clock time at
// construction moved on by the process's clock since then, which in virtual
// time is the run's. Lines below `minimumPriority` are dropped.
//
// Thread safety: write() and take() may be called from any thread; lines
// are written whole. Lifetime: installed for the rest of the process (a
// metric line may reach it at any time), so it must outlive every thread
// that logs.
class DeviceLog final : public LogSinkForTesting, public MetricSinkForTesting {
 public:
  DeviceLog(std::FILE* out, int minimumPriority);

  // From now on the library's and the metrics' lines come here.
  void install();

  void write(int priority, const char* tag, const char* text) override;
  bool take(int priority, const char* tag, const char* text) override;

 private:
  // "MM-DD HH:MM:SS.mmm" of now on the run's clock.
  void stamp(char* text, std::size_t size) const;

  std::FILE* const out_;
  const int minimumPriority_;
  const std::chrono::system_clock::time_point wallStart_;
  const std::chrono::steady_clock::time_point clockStart_;
  Mutex mutex_;  // one line at a time on `out_`
};

}  // namespace veranda::reachabilityCache::sim
