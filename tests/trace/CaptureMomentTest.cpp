// Moments as a person writes them for --at, --from and --to: read in the
// capture's notation and placed on its time line.
#include <gtest/gtest.h>

#include <string>
#include <vector>

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

// A cache from 10:00 to 10:10 in `form`, with a line at 10:05.
Trace tenMinutes(Form form) {
  const CaptureTrace read = traceText(render(
      std::vector<Message>{
          {"11-22 10:00:00.000", 9, 9, 'I', FACADE,
           "[ReachabilityCache]: event=cacheCreated maxCacheSize=1"},
          {"11-22 10:05:00.000", 9, 9, 'I', STORE, "[clear]: action=cleared previousSize=0"},
          {"11-22 10:10:00.000", 9, 9, 'I', FACADE,
           "[~ReachabilityCache]: event=cacheDestroyed cacheSize=0"}},
      form));
  EXPECT_TRUE(read.ok) << read.error;
  return read.trace;
}

std::string placed(const Trace& trace, const std::string& text, Micros after = NO_TIME) {
  const std::optional<CaptureMoment> moment = parseCaptureMoment(text);
  if (!moment) {
    return "no moment";
  }
  const ResolvedMoment resolved = resolveCaptureMoment(*moment, trace, after);
  return resolved.at == NO_TIME ? resolved.error : trace.clock.format(resolved.at);
}

// Seconds since boot, seconds since 1970 and nanoseconds: each in the
// notation its capture writes, and refused in another's.
TEST(CaptureMomentTest, TakesTheNotationOfEachClock) {
  const Trace sinceBoot = tenMinutes(Form::MONOTONIC);  // 11-22 00:00 is boot
  EXPECT_EQ(placed(sinceBoot, "+36300"), "+36300.000");
  EXPECT_EQ(placed(sinceBoot, "+36300.25"), "+36300.250");
  EXPECT_EQ(placed(sinceBoot, "10:05"),
            "the capture's times are seconds since boot: write +SECONDS[.f]");
  EXPECT_EQ(placed(sinceBoot, "1795341900"), "the capture's times are not seconds since 1970");

  const Trace epoch = tenMinutes(Form::EPOCH);  // shown as UTC dates
  EXPECT_EQ(placed(epoch, "2026-11-22 10:05:00"), "2026-11-22 10:05:00.000");
  EXPECT_EQ(placed(epoch, "10:05"), "2026-11-22 10:05:00.000");
  EXPECT_EQ(placed(epoch, "1795341900.5"), "2026-11-22 10:05:00.500");
  EXPECT_EQ(placed(epoch, "+300"),
            "the capture's times are dates: write [YYYY-]MM-DD HH:MM[:SS] or HH:MM[:SS]");

  const Trace nsec = tenMinutes(Form::NSEC);
  const ResolvedMoment fine =
      resolveCaptureMoment(*parseCaptureMoment("11-22 10:05:00.123456789"), nsec);
  EXPECT_EQ(fine.at % 1000000, 123456) << "read to the microsecond";
  for (const char* wrong : {"+", "+1.", "123456.5", "+1x", "12345678901"}) {
    EXPECT_FALSE(parseCaptureMoment(wrong)) << wrong;
  }
}

// The device's clock set back from 10:30 to 10:10: a time it wrote twice is
// the later one, where the time line holds both; a time it wrote once is
// found in its own stretch.
TEST(CaptureMomentTest, FindsTheMomentAcrossAClockSetBack) {
  const CaptureTrace read = traceText(render(
      std::vector<Message>{
          {"11-22 10:00:00.000", 9, 9, 'I', FACADE,
           "[ReachabilityCache]: event=cacheCreated maxCacheSize=1"},
          {"11-22 10:30:00.000", 9, 9, 'I', STORE, "[clear]: action=cleared previousSize=0"},
          {"11-22 10:10:00.000", 9, 9, 'I', STORE, "[clear]: action=cleared previousSize=0"},
          {"11-22 10:40:00.000", 9, 9, 'I', FACADE,
           "[~ReachabilityCache]: event=cacheDestroyed cacheSize=0"}},
      Form::THREADTIME));
  ASSERT_TRUE(read.ok) << read.error;
  const Trace& trace = read.trace;
  ASSERT_EQ(trace.clock.steps().size(), 1u);
  const Micros step = trace.clock.steps()[0].at;
  const auto at = [&trace](const std::string& text, Micros after = NO_TIME) {
    return resolveCaptureMoment(*parseCaptureMoment(text), trace, after).at;
  };
  EXPECT_GT(at("10:20"), step) << "written twice: the later";
  EXPECT_LT(at("10:05"), step) << "only before the step";
  EXPECT_GT(at("10:35"), step) << "only after it";
  EXPECT_EQ(placed(trace, "11-22 10:20"), "11-22 10:20:00.000");
  EXPECT_LT(at("10:20", at("10:01")), step) << "the first after 10:01 is before the step";
}

}  // namespace
}  // namespace veranda::reachabilityCache::trace::testing
