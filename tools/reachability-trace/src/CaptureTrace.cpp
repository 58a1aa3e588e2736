#include "CaptureTrace.h"

#include "CaptureReader.h"
#include "LogMessage.h"
#include "TraceBuilder.h"

namespace veranda::reachabilityCache::trace {

CaptureTrace traceCapture(int fd, const std::string& name, const std::string& storyEntity) {
  CaptureTrace result;
  TraceBuilder builder(storyEntity);
  MessageAssembler assembler([&builder](const LogMessage& message) { builder.add(message); });
  const ReadResult read = readCapture(fd, name, assembler);
  if (!read.ok) {
    result.error = read.error;
    return result;
  }
  builder.addDamaged(assembler.damagedLines());
  result.trace = builder.finish(read.bytes, read.sections);
  if (result.trace.caches.empty()) {
    result.error = name + " holds no line of the reachability cache";
    return result;
  }
  result.ok = true;
  return result;
}

}  // namespace veranda::reachabilityCache::trace
