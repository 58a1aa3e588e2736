#include "LogRecorder.h"

#include <cstdlib>

namespace veranda::reachabilityCache::test {
namespace {

LogCapture& makeCapture() {
  static LogCapture capture;
  // Read once, before main() starts any thread.
  const char* echo = std::getenv("REACHABILITY_CACHE_TEST_LOG");  // NOLINT(concurrency-mt-unsafe)
  capture.setEcho(echo != nullptr);
  return capture;
}

// Made before main(), so that no line of a test binary escapes it.
const LogCapture& capturedFromTheStart = LogRecorder::instance();

}  // namespace

LogCapture& LogRecorder::instance() {
  static LogCapture& capture = makeCapture();
  return capture;
}

}  // namespace veranda::reachabilityCache::test
