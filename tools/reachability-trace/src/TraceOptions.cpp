#include "TraceOptions.h"

#include <CLI/CLI.hpp>

#include <string>

#include "CaptureMoment.h"
#include "Evidence.h"
#include "TraceModel.h"

namespace veranda::reachabilityCache::trace {
namespace {

// Refuses a TIME that no capture could name, before the capture is read.
CLI::Validator moment() {
  return {[](std::string& value) -> std::string {
            return parseCaptureMoment(value)
                       ? ""
                       : "no moment: write [YYYY-]MM-DD HH:MM[:SS[.f]], HH:MM[:SS[.f]], "
                         "+SECONDS[.f] or EPOCH-SECONDS[.f], got " +
                             tools::quotedText(value);
          },
          "", ""};
}

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
    "UTF-16, with or without a byte-order mark; - reads standard input.\n\n"
    "TIME is written as the capture writes its times: [YYYY-]MM-DD HH:MM[:SS[.f]]\n"
    "(the fraction to the nanosecond), or HH:MM[:SS[.f]] alone for the latest such\n"
    "moment of the capture (with --to, the first after --from); +SECONDS[.f] where\n"
    "the capture counts seconds since boot, and EPOCH-SECONDS[.f] (or the UTC date)\n"
    "where it counts seconds since 1970. Where the device's clock was set back, or\n"
    "a bug report holds the boot before, a TIME means the moment the device wrote\n"
    "it: in the boot whose cache was running then, else the latest. A window reads\n"
    "the capture twice.\n\n"
    "Lines are numbered as the tool reads them: the first line of the text is 1,\n"
    "after a zip or gzip is unpacked and UTF-16 is turned into UTF-8 (the numbers\n"
    "of an editor that opens the unpacked text; a bug report's lines count from the\n"
    "top of its text, dumpstate's header included).\n";

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
         "What is left out is counted in the report and in --json's \"leftOut\"; the page\n"
         "says so too, and keeps the lines behind the changes up to " +
         std::to_string(EVIDENCE_BUDGET_BYTES >> 20) +
         " MB.\n\n"
         "Exit status: 0 after a report; 2 for a bad option, or for a capture that cannot be\n"
         "read, is empty, or holds no line of the cache that can be read (one line on\n"
         "standard error, naming what it holds), an entity no cache knows or a window in\n"
         "which no cache ran; 1 when the picture or the page cannot be written.\n";
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
  app.add_option("--cache", options.cache,
                 "the cache to draw (and the page's first) when the\n"
                 "capture holds several (1 is the first; default: the\n"
                 "last of the current boot)")
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
