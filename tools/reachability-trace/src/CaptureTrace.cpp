#include "CaptureTrace.h"

#include "CaptureReader.h"
#include "LogMessage.h"

namespace veranda::reachabilityCache::trace {

CaptureTrace traceCapture(int fd, const std::string& name, const TraceScope& scope) {
  CaptureTrace result;
  TraceBuilder builder(scope);
  MessageAssembler assembler([&builder](const LogMessage& message) { builder.add(message); },
                             scope.evidence.any());
  const ReadResult read = readCapture(fd, name, assembler);
  if (!read.ok) {
    result.error = read.error;
    return result;
  }
  builder.addDamaged(assembler.damagedLines());
  result.trace = builder.finish(read.bytes, read.sections);
  if (result.trace.caches.empty()) {
    result.noCache = true;
    result.error = name + " holds no line of the reachability cache";
    return result;
  }
  result.ok = true;
  return result;
}

}  // namespace veranda::reachabilityCache::trace
