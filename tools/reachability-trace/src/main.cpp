// reachability-trace: reads a device log capture and tells what the
// reachability cache believed, when, and why. See --help.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <iostream>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "AnswerAt.h"
#include "CaptureMoment.h"
#include "CaptureTrace.h"
#include "CommandLine.h"
#include "TimelineSvg.h"
#include "TraceOptions.h"
#include "TraceOutput.h"
#include "TracePage.h"

namespace {

using namespace veranda::reachabilityCache;
using namespace veranda::reachabilityCache::trace;

const char* const PROGRAM = "reachability-trace";

int fail(const std::string& error, int status) { return tools::failTool(PROGRAM, error, status); }

std::string baseName(const std::string& path) {
  return path == "-" ? "standard input" : path.substr(path.find_last_of('/') + 1);
}

std::string systemError(const std::string& what) {
  return what + ": " + std::generic_category().message(errno);
}

// The capture, open for reading; a copy of standard input where it must be
// read twice.
struct Input {
  int fd = -1;
  std::string name;
  std::FILE* copy = nullptr;
  std::string error;
};

Input openInput(const TraceOptions& options, bool twice) {
  Input input;
  if (options.capturePath != "-") {
    input.name = options.capturePath;
    input.fd = ::open(options.capturePath.c_str(), O_RDONLY);
    input.error = input.fd < 0 ? systemError("cannot open " + options.capturePath) : "";
    return input;
  }
  input.name = "standard input";
  input.fd = STDIN_FILENO;
  if (!twice) {
    return input;
  }
  input.copy = std::tmpfile();
  std::vector<char> block(std::size_t{1} << 20);
  for (ssize_t got = 0; input.copy != nullptr;) {
    got = ::read(STDIN_FILENO, block.data(), block.size());
    if (got < 0 && errno == EINTR) {
      continue;
    }
    if (got <= 0 || std::fwrite(block.data(), 1, static_cast<std::size_t>(got), input.copy) !=
                        static_cast<std::size_t>(got)) {
      input.error = got < 0 ? systemError("cannot read standard input") : "";
      break;
    }
  }
  if (input.copy == nullptr || std::fflush(input.copy) != 0) {
    input.error = systemError("cannot keep a copy of standard input");
  }
  input.fd = input.copy == nullptr ? -1 : fileno(input.copy);
  return input;
}

// `text` (an option's TIME) on the trace's time line.
std::optional<Micros> moment(const std::string& option, const std::string& text, const Trace& trace,
                             Micros after, std::string& error) {
  const std::optional<CaptureMoment> parsed = parseCaptureMoment(text);
  const ResolvedMoment resolved =
      parsed ? resolveCaptureMoment(*parsed, trace, after) : ResolvedMoment{};
  if (resolved.at == NO_TIME) {
    error = option + " " + tools::quotedText(text) + ": " +
            (parsed ? resolved.error : std::string("no moment the capture could name"));
    return std::nullopt;
  }
  return resolved.at;
}

std::optional<TraceWindow> window(const TraceOptions& options, const Trace& trace,
                                  std::string& error) {
  TraceWindow window;
  if (!options.from.empty()) {
    const auto from = moment("--from", options.from, trace, NO_TIME, error);
    if (!from) {
      return std::nullopt;
    }
    window.from = *from;
  }
  if (!options.to.empty()) {
    const auto to = moment("--to", options.to, trace, window.from, error);
    if (!to) {
      return std::nullopt;
    }
    window.to = *to;
  }
  if (window.from != NO_TIME && window.to != NO_TIME && window.to < window.from) {
    error = "--to is before --from";
    return std::nullopt;
  }
  return window;
}

std::optional<std::size_t> cacheToDraw(const Trace& trace, const TraceOptions& options,
                                       std::string& error) {
  if (options.cache > trace.caches.size()) {
    error = "--cache " + std::to_string(options.cache) + ": the capture holds " +
            std::to_string(trace.caches.size()) + " caches";
    return std::nullopt;
  }
  return options.cache == 0 ? defaultCache(trace) : options.cache - 1;
}

int draw(const Trace& trace, const TraceOptions& options) {
  if (!trace.hasTime) {
    return fail("the capture has no timestamps (brief format): no picture can be drawn", 2);
  }
  std::string error;
  const std::optional<std::size_t> index = cacheToDraw(trace, options, error);
  if (!index) {
    return fail(error, 2);
  }
  if (!options.timelinePath.empty() &&
      !tools::writeTimelineSvg(tracePicture(trace, *index, baseName(options.capturePath)),
                               options.timelinePath, error)) {
    return fail(error, 1);
  }
  if (!options.pagePath.empty() &&
      !writeTracePage(trace, *index, baseName(options.capturePath), options.pagePath, error)) {
    return fail(error, 1);
  }
  return 0;
}

int tell(const Trace& whole, const Trace& trace, const TraceOptions& options) {
  if (!options.at.empty()) {
    std::string error;
    const std::optional<Micros> at = moment("--at", options.at, whole, NO_TIME, error);
    if (!at) {
      return fail(error, 2);
    }
    if (!printAnswerAt(whole, options.entityId, *at, std::cout)) {
      return fail("no cache in the capture knows the entity " + options.entityId, 2);
    }
  } else if (options.json) {
    writeTraceJson(trace, std::cout);
  } else if (!options.entityId.empty()) {
    if (!printEntityStory(trace, options.entityId, std::cout)) {
      return fail("no cache in the capture knows the entity " + options.entityId +
                      (trace.window.limits() ? " in the window" : ""),
                  2);
    }
  } else {
    printReport(trace, std::cout);
  }
  const bool pictures = !options.timelinePath.empty() || !options.pagePath.empty();
  return pictures ? draw(trace, options) : 0;
}

}  // namespace

int main(int argc, char** argv) {
  const TraceOptionsResult parsed = parseTraceOptions(tools::argumentsOf(argc, argv));
  if (const std::optional<int> status = tools::startTool(PROGRAM, parsed, traceUsageText)) {
    return *status;
  }
  const TraceOptions& options = parsed.options;
  const bool windowed = !options.from.empty() || !options.to.empty();
  Input input = openInput(options, windowed);
  if (!input.error.empty()) {
    return fail(input.error, 2);
  }
  // A window's page keeps every entity's evidence in the window alone, on
  // the second reading.
  TraceScope scope;
  scope.evidence.entity = options.entityId;
  scope.evidence.everyEntity = !options.pagePath.empty() && !windowed;
  if (input.copy != nullptr) {
    ::lseek(input.fd, 0, SEEK_SET);
  }
  const CaptureTrace whole = traceCapture(input.fd, input.name, scope);
  if (!whole.ok) {
    return fail(whole.error, 2);
  }
  if (!windowed) {
    return tell(whole.trace, whole.trace, options);
  }
  std::string error;
  const std::optional<TraceWindow> limits = window(options, whole.trace, error);
  if (!limits) {
    return fail(error, 2);
  }
  scope.window = *limits;
  scope.evidence.everyEntity = !options.pagePath.empty();
  if (::lseek(input.fd, 0, SEEK_SET) != 0) {
    return fail(systemError("cannot read " + input.name + " again"), 2);
  }
  const CaptureTrace part = traceCapture(input.fd, input.name, scope);
  if (!part.ok) {
    return fail(part.noCache ? "no cache of the capture was running in the window" : part.error, 2);
  }
  return tell(whole.trace, part.trace, options);
}
