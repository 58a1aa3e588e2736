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
  bool noCache = false;  // !ok: the capture was read, but holds no cache
  Trace trace;
};

// Reads `fd` to its end; `name` names the capture in errors; `scope` as for
// TraceBuilder. Refuses input that cannot be read, binary data, an empty
// capture and one without any line of the library.
CaptureTrace traceCapture(int fd, const std::string& name, const TraceScope& scope = {});

}  // namespace veranda::reachabilityCache::trace
