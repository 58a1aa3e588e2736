// Moments as a person writes them for --at, --from and --to: read in the
// capture's notation and placed on its time line.
#include <gtest/gtest.h>

#include <string>

#include "CaptureFiles.h"
#include "CaptureMoment.h"

namespace veranda::reachabilityCache::trace::testing {
namespace {

TEST(CaptureMomentTest, ReadsTheCapturesNotationAndNothingElse) {
  const auto micros = [](const std::string& text) {
    const std::optional<CaptureMoment> moment = parseCaptureMoment(text);
    return moment ? moment->micros : -1;
  };
  EXPECT_EQ(micros("14:00"), 50400000000);
  EXPECT_EQ(micros("9:14"), 33240000000);
  EXPECT_EQ(micros("14:00:35"), 50435000000);
  EXPECT_EQ(micros("14:00:35.5"), 50435500000);
  EXPECT_EQ(micros("14:00:35.123456"), 50435123456);
  const std::optional<CaptureMoment> dated = parseCaptureMoment("2026-11-22 14:00:35.123");
  ASSERT_TRUE(dated);
  EXPECT_TRUE(dated->year == 2026 && dated->month == 11 && dated->day == 22);
  EXPECT_EQ(dated->micros, 50435123000);
  const std::optional<CaptureMoment> yearless = parseCaptureMoment("11-22 14:00");
  ASSERT_TRUE(yearless);
  EXPECT_TRUE(yearless->hasDate() && yearless->year == 0);
  EXPECT_FALSE(parseCaptureMoment("14:00")->hasDate());
  for (const char* wrong : {"", "14", "24:00", "14:60", "14:00:60", "14:00:35.1234567890",
                            "14:00:", "14:00 ", "11-32 14:00", "13-01 14:00", "1122 14:00", "11-22",
                            "26-11-22 14:00", "9.14", "nine", "14:00:35.", "-1:00"}) {
    EXPECT_FALSE(parseCaptureMoment(wrong)) << wrong;
  }
}

// A yearless capture over the new year, from 12-31 23:00 to 01-01 01:00.
Trace overTheNewYear() {
  const auto line = [](const std::string& time, const std::string& text) {
    return render(Message{time, 9, 9, 'I', FACADE, text}, Form::THREADTIME);
  };
  const CaptureTrace read = traceText(
      line("12-31 23:00:00.000", "[ReachabilityCache]: event=cacheCreated maxCacheSize=1") +
      line("01-01 01:00:00.000", "[~ReachabilityCache]: event=cacheDestroyed cacheSize=0"));
  EXPECT_TRUE(read.ok) << read.error;
  return read.trace;
}

TEST(CaptureMomentTest, PlacesAMomentOnTheDayOfTheCaptureThatHoldsIt) {
  const Trace trace = overTheNewYear();
  const auto at = [&trace](const std::string& text, Micros after = NO_TIME) {
    const ResolvedMoment resolved = resolveCaptureMoment(*parseCaptureMoment(text), trace, after);
    return resolved.at == NO_TIME ? resolved.error : trace.clock.format(resolved.at);
  };
  // A time of day alone: the latest such moment up to the capture's end...
  EXPECT_EQ(at("23:30"), "12-31 23:30:00.000");
  EXPECT_EQ(at("00:30"), "01-01 00:30:00.000");
  // ... which no day of the capture may hold: then on the day of its end.
  EXPECT_EQ(at("12:00"), "01-01 12:00:00.000");
  // After a moment (--to after --from): the first such moment.
  const Micros from = resolveCaptureMoment(*parseCaptureMoment("23:30"), trace).at;
  EXPECT_EQ(at("00:10", from), "01-01 00:10:00.000");
  EXPECT_EQ(at("23:40", from), "12-31 23:40:00.000");
  // A date without a year: the year that puts it nearest the capture.
  EXPECT_EQ(at("12-31 23:30"), "12-31 23:30:00.000");
  EXPECT_EQ(at("01-01 00:30"), "01-01 00:30:00.000");
  EXPECT_GT(resolveCaptureMoment(*parseCaptureMoment("01-01 00:30"), trace).at,
            resolveCaptureMoment(*parseCaptureMoment("12-31 23:30"), trace).at);
  EXPECT_EQ(at("2026-01-01 00:30"), "the capture's times have no year: leave it out");
  EXPECT_EQ(at("02-30 10:00"), "there is no such day");
}

TEST(CaptureMomentTest, TakesTheYearWhereTheCaptureHasOne) {
  const CaptureTrace read =
      traceText(render(Message{"11-22 10:00:00.000", 9, 9, 'I', FACADE,
                               "[ReachabilityCache]: event=cacheCreated maxCacheSize=1"},
                       Form::UID_YEAR_USEC));
  ASSERT_TRUE(read.ok) << read.error;
  const ResolvedMoment resolved =
      resolveCaptureMoment(*parseCaptureMoment("2026-11-22 09:14:00.000123"), read.trace);
  EXPECT_EQ(read.trace.clock.format(resolved.at), "2026-11-22 09:14:00.000");
  EXPECT_EQ(resolved.at % 1000000, 123);
  const CaptureTrace brief = traceText(render(
      Message{"", 9, 9, 'I', FACADE, "[ReachabilityCache]: event=cacheCreated maxCacheSize=1"},
      Form::BRIEF));
  ASSERT_TRUE(brief.ok) << brief.error;
  EXPECT_EQ(resolveCaptureMoment(*parseCaptureMoment("10:00"), brief.trace).error,
            "the capture has no timestamps (brief format)");
}

}  // namespace
}  // namespace veranda::reachabilityCache::trace::testing
