// The log capture of every test binary of this repository: installed before
// main() runs, it collects each line the library and the metric stand-in
// write, so that tests assert whole lines and nothing reaches standard error.
// With REACHABILITY_CACHE_TEST_LOG set in the environment it also prints them.
#pragma once

#include "diagnostics/LogSchema.h"
#include "reachabilityCache/testing/LogCapture.h"

namespace veranda::reachabilityCache::test {

inline constexpr const char* FACADE_TAG = logSchema::tag::FACADE;
inline constexpr const char* STORE_TAG = logSchema::tag::STORE;
inline constexpr const char* UPDATER_TAG = logSchema::tag::UPDATER;
inline constexpr const char* CHECKER_TAG = logSchema::tag::CHECKER;
inline constexpr const char* TRACKER_TAG = logSchema::tag::TRACKER;
inline constexpr const char* METRIC_TAG = logSchema::tag::METRIC;

class LogRecorder {
 public:
  // The binary's capture, alive from before main() to the end of the process.
  static LogCapture& instance();

  LogRecorder() = delete;
};

}  // namespace veranda::reachabilityCache::test
