// Reads a whole capture into a Trace: the reader, the assembler and the
// builder put together.
#pragma once

#include <string>

#include "TraceBuilder.h"
#include "TraceModel.h"

namespace veranda::reachabilityCache::trace {

struct CaptureTrace {
  bool ok = false;
  std::string error;     // one line when !ok
  bool noCache = false;  // !ok: the capture was read, but holds no cache (in the window)
  Trace trace;
};

// Reads `fd` to its end, unpacked and decoded (see openCapture); `name`
// names the capture in errors; `scope` as for TraceBuilder: where it keeps
// evidence, the lines are numbered as read (after unpacking and decoding,
// the first line 1). Refuses
// input that cannot be read, an empty capture and one without any line of
// the library that can be read, naming what it holds instead.
CaptureTrace traceCapture(int fd, const std::string& name, const TraceScope& scope = {});

}  // namespace veranda::reachabilityCache::trace
