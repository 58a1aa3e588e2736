// Where the library's lines go: the platform log, or in a host's test a sink
// installed in-process.
#pragma once

#include "reachabilityCache/Export.h"

namespace veranda::reachabilityCache {

// Receives the library's lines in place of the platform log while installed
// with setLogSinkForTesting(). The installer owns it.
class LogSinkForTesting {
 public:
  // One finished line: its Android priority, its tag and its text, valid
  // during the call. Called on whichever thread logs, several at once; it must
  // not install or remove a sink.
  virtual void write(int priority, const char* tag, const char* text) = 0;

 protected:
  ~LogSinkForTesting() = default;
};

// Test hook of host builds (absent from an Android build): from now on every
// line goes to `sink` instead of the platform log; null restores the platform
// log. When it returns, no write into the sink it replaced is running and
// none will start, so the caller may destroy that sink. A line written
// meanwhile goes, whole, to the sink it replaced or to the platform log;
// none is lost. Calls are serialised with each other; lines keep flowing
// while one waits. The host test kit's LogCapture is the one user.
REACHABILITY_CACHE_EXPORT void setLogSinkForTesting(LogSinkForTesting* sink);

// The same for a sink that lives to the end of the process: lines then reach
// it at the cost of the call alone, as they reach the platform log. For the
// benchmarks, which link the library's objects (not exported).
void setPermanentLogSinkForTesting(LogSinkForTesting* sink);

// Writes one line to the installed sink or else, with the format "%s", to the
// platform log. With no sink installed it costs one atomic load more than the
// platform call.
void writeLogLine(int priority, const char* tag, const char* text);

}  // namespace veranda::reachabilityCache
