// reachability-trace: reads a device log capture and tells what the
// reachability cache believed, when, and why. See --help.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <iostream>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "CaptureTrace.h"
#include "CommandLine.h"
#include "TimelineSvg.h"
#include "TraceOptions.h"
#include "TraceOutput.h"

namespace {

using namespace veranda::reachabilityCache;
using namespace veranda::reachabilityCache::trace;

const char* const PROGRAM = "reachability-trace";

int fail(const std::string& error, int status) { return tools::failTool(PROGRAM, error, status); }

std::string baseName(const std::string& path) {
  return path == "-" ? "standard input" : path.substr(path.find_last_of('/') + 1);
}

int draw(const Trace& trace, const TraceOptions& options) {
  if (!trace.hasTime) {
    return fail("the capture has no timestamps (brief format): no picture can be drawn", 2);
  }
  if (options.cache > trace.caches.size()) {
    return fail("--cache " + std::to_string(options.cache) + ": the capture holds " +
                    std::to_string(trace.caches.size()) + " caches",
                2);
  }
  const std::size_t index = options.cache == 0 ? defaultCache(trace) : options.cache - 1;
  std::string error;
  if (!tools::writeTimelineSvg(tracePicture(trace, index, baseName(options.capturePath)),
                               options.timelinePath, error)) {
    return fail(error, 1);
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const TraceOptionsResult parsed = parseTraceOptions(tools::argumentsOf(argc, argv));
  if (const std::optional<int> status = tools::startTool(PROGRAM, parsed, traceUsageText)) {
    return *status;
  }
  const TraceOptions& options = parsed.options;
  const bool standardInput = options.capturePath == "-";
  const int fd = standardInput ? STDIN_FILENO : ::open(options.capturePath.c_str(), O_RDONLY);
  if (fd < 0) {
    return fail(
        "cannot open " + options.capturePath + ": " + std::generic_category().message(errno), 2);
  }
  const std::string name = standardInput ? "standard input" : options.capturePath;
  const CaptureTrace read = traceCapture(fd, name, options.entityId);
  if (!standardInput) {
    ::close(fd);
  }
  if (!read.ok) {
    return fail(read.error, 2);
  }
  const Trace& trace = read.trace;
  if (options.json) {
    writeTraceJson(trace, std::cout);
  } else if (!options.entityId.empty()) {
    if (!printEntityStory(trace, options.entityId, std::cout)) {
      return fail("no cache in the capture knows the entity " + options.entityId, 2);
    }
  } else {
    printReport(trace, std::cout);
  }
  return options.timelinePath.empty() ? 0 : draw(trace, options);
}
