// reachability-trace's command line: refused with the same words as the
// simulator's, since both read it through the toolbox.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "TraceOptions.h"

namespace veranda::reachabilityCache::trace {
namespace {

TEST(TraceOptionsTest, BadCommandLinesAreRefusedWithOneLine) {
  const std::pair<std::vector<std::string>, std::string> cases[] = {
      {{}, "FILE is required"},
      {{"--entity"}, "--entity needs a value"},
      {{"--bogus", "a.txt"}, "unknown option '--bogus'"},
      {{"a.txt", "b\x1b.txt"}, "unexpected argument 'b\\x1b.txt'"},
      {{"--timeline", "", "a.txt"}, "--timeline: needs a file path, got an empty text"},
      {{"--cache", "0", "a.txt"}, "--cache: counts from 1, got 0"},
      {{"--json", "--entity", "lamp", "a.txt"}, "--json excludes --entity"},
      {{"--at", "9:14", "a.txt"}, "--at requires --entity"},
      {{"--at", "9.14", "--entity", "lamp", "a.txt"},
       "--at: no moment: write [YYYY-]MM-DD HH:MM[:SS[.f]], HH:MM[:SS[.f]], +SECONDS[.f] or "
       "EPOCH-SECONDS[.f], got '9.14'"},
      {{"--to", "25:00", "a.txt"},
       "--to: no moment: write [YYYY-]MM-DD HH:MM[:SS[.f]], HH:MM[:SS[.f]], +SECONDS[.f] or "
       "EPOCH-SECONDS[.f], got '25:00'"},
      {{"--html", "", "a.txt"}, "--html: needs a file path, got an empty text"},
  };
  for (const auto& [arguments, error] : cases) {
    const TraceOptionsResult parsed = parseTraceOptions(arguments);
    EXPECT_FALSE(parsed.ok);
    EXPECT_EQ(parsed.error, error);
  }
  const TraceOptionsResult help = parseTraceOptions({"--help"});
  EXPECT_TRUE(help.ok && help.help);
  const TraceOptionsResult read = parseTraceOptions({"--cache", "2", "--timeline", "t.svg", "-"});
  ASSERT_TRUE(read.ok) << read.error;
  EXPECT_TRUE(read.options.cache == 2 && read.options.timelinePath == "t.svg" &&
              read.options.capturePath == "-" && !read.help);
  const TraceOptionsResult at = parseTraceOptions(
      {"--at", "11-22 09:14", "--entity", "lamp", "--from", "9:00", "--html", "p.html", "a.txt"});
  ASSERT_TRUE(at.ok) << at.error;
  EXPECT_TRUE(at.options.at == "11-22 09:14" && at.options.from == "9:00" &&
              at.options.pagePath == "p.html");
}

}  // namespace
}  // namespace veranda::reachabilityCache::trace
