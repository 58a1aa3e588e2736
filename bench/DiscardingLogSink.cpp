// The log of the benchmark binaries: installed before main(), it takes every
// line of the library and of the metric stand-in in place of the platform
// log, formats it as the device's log does before it filters by priority, and
// drops it. What a benchmark measures is the library's own work plus that one
// formatting call per line.
#include <cstdio>

#include "diagnostics/LogSink.h"
#include "metrics/MetricSinkForTesting.h"

namespace veranda::reachabilityCache::bench {
namespace {

void formatAndDrop(const char* text) {
  // The device formats into a buffer of this size and truncates longer lines.
  char buffer[1024];
  std::snprintf(buffer, sizeof(buffer), "%s", text);
  // Keeps the formatting from being optimised away.
  asm volatile("" : : "r"(buffer) : "memory");
}

class DiscardingLogSink final : public LogSinkForTesting, public MetricSinkForTesting {
 public:
  void write(int /*priority*/, const char* /*tag*/, const char* text) override {
    formatAndDrop(text);
  }
  bool take(int /*priority*/, const char* /*tag*/, const char* text) override {
    formatAndDrop(text);
    return true;
  }
};

// Lives to the end of the process, as the metric stand-in asks.
DiscardingLogSink sink;

const bool INSTALLED = [] {
  setPermanentLogSinkForTesting(&sink);
  setMetricSinkForTesting(&sink);
  return true;
}();

}  // namespace
}  // namespace veranda::reachabilityCache::bench
