#include "CaptureTrace.h"

#include "CaptureReader.h"
#include "CaptureSource.h"
#include "LogMessage.h"
#include "SafeText.h"
#include "TraceBuilder.h"

namespace veranda::reachabilityCache::trace {
namespace {

constexpr std::size_t SHOWN_LINE = 120;

// Why a capture gave no cache: what was seen instead.
std::string nothingRead(const std::string& name, const Trace& trace) {
  if (trace.damagedLines > 0) {
    return name + " has " + std::to_string(trace.damagedLines) +
           " lines naming ReachabilityCache but none in a layout this tool reads; the first: '" +
           tools::terminalText(tools::shortened(trace.firstDamaged, SHOWN_LINE)) + "'";
  }
  std::string error = name + " holds no line of the reachability cache";
  if (trace.nulBytes > trace.bytes / 100 && trace.nulBytes > 0) {
    error += " (it looks like binary data: " + std::to_string(trace.nulBytes) + " of its " +
             std::to_string(trace.bytes) + " bytes are NUL)";
  } else if (trace.overLongLines > 0) {
    error += " (" + std::to_string(trace.overLongLines) + " lines longer than " +
             std::to_string(MAX_LINE_BYTES / 1024) + " KiB that name it were skipped)";
  }
  return error;
}

}  // namespace

CaptureTrace traceCapture(int fd, const std::string& name, const TraceScope& scope) {
  CaptureTrace result;
  OpenedCapture opened = openCapture(fd, name);
  if (!opened.source) {
    result.error = opened.error;
    return result;
  }
  TraceBuilder builder(scope);
  MessageAssembler assembler([&builder](const LogMessage& message) { builder.add(message); },
                             [&builder](std::string_view title) { builder.beginSection(title); },
                             scope.evidence.any());
  const ReadResult read = readCapture(*opened.source, name, assembler);
  if (!read.ok) {
    result.error = read.error;
    return result;
  }
  builder.addDamaged(assembler.damagedLines(), assembler.firstDamaged());
  result.trace = builder.finish(read.bytes, read.sections);
  Trace& trace = result.trace;
  trace.nulBytes = read.nulBytes;
  trace.overLongLines = read.overLongLines;
  trace.archive = opened.archive;
  trace.entry = opened.entry;
  trace.encoding = opened.encoding;
  if (trace.caches.empty()) {
    result.noCache = true;
    result.error = nothingRead(name, trace);
    return result;
  }
  result.ok = true;
  return result;
}

}  // namespace veranda::reachabilityCache::trace
