// Reads a whole capture into a Trace: the reader, the assembler and the
// builder put together.
#pragma once

#include <string>

#include "TraceModel.h"

namespace veranda::reachabilityCache::trace {

struct CaptureTrace {
  bool ok = false;
  std::string error;  // one line when !ok
  Trace trace;
};

// Reads `fd` to its end, unpacked and decoded (see openCapture); `name`
// names the capture in errors; `storyEntity` as for TraceBuilder. Refuses
// input that cannot be read, an empty capture and one without any line of
// the library that can be read, naming what it holds instead.
CaptureTrace traceCapture(int fd, const std::string& name, const std::string& storyEntity = "",
                          const TraceLimits& limits = {});

}  // namespace veranda::reachabilityCache::trace
