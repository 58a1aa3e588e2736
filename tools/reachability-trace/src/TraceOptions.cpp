#include "TraceOptions.h"

#include <CLI/CLI.hpp>

#include <string>

#include "TraceModel.h"

namespace veranda::reachabilityCache::trace {
namespace {

const char* const DESCRIPTION =
    "Reads a device log capture and tells what the reachability cache believed, when,\n"
    "and why: per cache its configuration and life, every periodic cycle and check,\n"
    "the changes told to listeners per entity, what isEntityReachable answered over\n"
    "time, and its problems. Every answer rests on lines of the capture: where they\n"
    "do not tell, it is unknown, and an answer that rests on an inference says so.\n\n"
    "FILE is a logcat capture in any layout (threadtime, time, brief or long, with\n"
    "the uid, year, usec, nsec, zone, epoch, monotonic, color and printable adverbs),\n"
    "what an IDE's log window copies, what the host liblog writes on standard error\n"
    "(such as reachability-sim's), or a bug report (as text, zip or gzip); UTF-8 or\n"
    "UTF-16, with or without a byte-order mark; - reads standard input.\n";

// What the trace keeps, from its limits.
std::string footer() {
  const TraceLimits limits;
  return "Memory stays bounded whatever the capture: the trace follows at most " +
         std::to_string(limits.caches) + " caches,\n" + std::to_string(limits.entities) +
         " entities (" + std::to_string(limits.endpointsPerEntity) +
         " endpoints each) and lists at most " + std::to_string(limits.checks) +
         " checks. --json lists\nevery cache, entity and check it follows; of the answers "
         "and changes the first\n" +
         std::to_string(limits.answers) + " and " + std::to_string(limits.changes) +
         " (and each entity's last answer); the figures count all of them.\n"
         "What is left out is counted in the report and in --json's \"leftOut\".\n\n"
         "Exit status: 0 after a report; 2 for a bad option, or for a capture that cannot be\n"
         "read, is empty, or holds no line of the cache that can be read (one line on\n"
         "standard error, naming what it holds); 1 when the picture cannot be written.\n";
}

void describe(CLI::App& app, TraceOptions& options) {
  app.description(DESCRIPTION);
  app.footer(footer());
  app.get_formatter()->column_width(24);
  app.add_option("FILE", options.capturePath, "the capture to read (- for standard input)")
      ->required()
      ->check(tools::nonEmptyPath());
  auto* json = app.add_flag("--json", options.json,
                            "writes a JSON document for scripts instead of the\nreport");
  app.add_option("--entity", options.entityId,
                 "tells one entity's story instead of the report: each\n"
                 "change with the log lines that caused it")
      ->type_name("ID")
      ->excludes(json);
  app.add_option("--timeline", options.timelinePath,
                 "also draws the cache's picture as SVG: a row per\n"
                 "entity, the state listeners were told over time")
      ->type_name("FILE.svg")
      ->check(tools::nonEmptyPath());
  app.add_option("--cache", options.cache,
                 "the cache to draw when the capture holds several\n(1 is the first; default: the "
                 "last of the\ncurrent boot)")
      ->type_name("N")
      ->check(CLI::Validator(
          [](std::string& value) -> std::string {
            return value == "0" ? "counts from 1, got 0" : "";
          },
          "", ""));
}

}  // namespace

TraceOptionsResult parseTraceOptions(const std::vector<std::string>& arguments) {
  TraceOptionsResult result;
  CLI::App app("", "reachability-trace");
  describe(app, result.options);
  static_cast<tools::CommandLineResult&>(result) = tools::parseCommandLine(app, arguments);
  return result;
}

std::string traceUsageText() {
  TraceOptions options;
  CLI::App app("", "reachability-trace");
  describe(app, options);
  return app.help();
}

}  // namespace veranda::reachabilityCache::trace
