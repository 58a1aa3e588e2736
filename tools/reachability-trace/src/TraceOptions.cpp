#include "TraceOptions.h"

#include <CLI/CLI.hpp>

#include "CaptureMoment.h"

namespace veranda::reachabilityCache::trace {
namespace {

// Refuses a TIME the capture could not name, before the capture is read.
CLI::Validator moment() {
  return {[](std::string& value) -> std::string {
            return parseCaptureMoment(value)
                       ? ""
                       : "no moment: write [YYYY-]MM-DD HH:MM[:SS[.fff]] or HH:MM[:SS[.fff]], "
                         "got " +
                             tools::quotedText(value);
          },
          "", ""};
}

const char* const DESCRIPTION =
    "Reads a device log capture and tells what the reachability cache believed, when,\n"
    "and why: per cache its configuration and life, every periodic cycle and check,\n"
    "the changes told to listeners per entity, and its problems.\n\n"
    "FILE is an adb logcat capture (threadtime, time or brief; the uid, year and usec\n"
    "adverbs too), a bug report, or what the host liblog writes on standard error\n"
    "(such as reachability-sim's); - reads standard input.\n\n"
    "TIME is written as the capture writes it: [YYYY-]MM-DD HH:MM[:SS[.fff]], or\n"
    "HH:MM[:SS[.fff]] alone for the latest such moment of the capture (with --to,\n"
    "the first after --from). A window reads the capture twice.\n";

const char* const FOOTER =
    "Exit status: 0 after a report; 2 for a bad option, or for a capture that cannot be\n"
    "read, is binary or empty, or holds no line of the cache, an entity no cache knows\n"
    "or a window in which no cache ran (one line on standard error); 1 when the\n"
    "picture or the page cannot be written.\n";

void describe(CLI::App& app, TraceOptions& options) {
  app.description(DESCRIPTION);
  app.footer(FOOTER);
  app.get_formatter()->column_width(24);
  app.add_option("FILE", options.capturePath, "the capture to read (- for standard input)")
      ->required()
      ->check(tools::nonEmptyPath());
  auto* json = app.add_flag("--json", options.json,
                            "writes a JSON document for scripts instead of the\nreport");
  auto* entity = app.add_option("--entity", options.entityId,
                                "tells one entity's story instead of the report: each\n"
                                "change with the log lines that caused it")
                     ->type_name("ID")
                     ->excludes(json);
  app.add_option("--at", options.at,
                 "with --entity: what isEntityReachable answered at that\n"
                 "moment (or why it is unknown), with the numbered lines\n"
                 "that made it so, instead of the story")
      ->type_name("TIME")
      ->check(moment())
      ->needs(entity);
  app.add_option("--from", options.from,
                 "limits the report, the story, the JSON document and\n"
                 "the pictures to what happened from TIME on")
      ->type_name("TIME")
      ->check(moment());
  app.add_option("--to", options.to, "... and up to TIME (both ends belong to the window)")
      ->type_name("TIME")
      ->check(moment());
  app.add_option("--timeline", options.timelinePath,
                 "also draws the cache's picture as SVG: a row per\n"
                 "entity, the state listeners were told over time")
      ->type_name("FILE.svg")
      ->check(tools::nonEmptyPath());
  app.add_option("--html", options.pagePath,
                 "also writes the page: one HTML file that any browser\n"
                 "opens offline, a lane per entity over time, to zoom,\n"
                 "search and click for the lines behind each change")
      ->type_name("FILE.html")
      ->check(tools::nonEmptyPath());
  app.add_option(
         "--cache", options.cache,
         "the cache to draw (and the page's first) when the\ncapture holds several (1 is the "
         "first; default: the\nlast)")
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
