// The page's document: every text from the capture stays data, and every
// line it shows is the capture's own line under its number.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "CaptureFiles.h"
#include "SimCaptures.h"
#include "TracePage.h"

namespace veranda::reachabilityCache::trace::testing {
namespace {

std::size_t occurrences(const std::string& text, const std::string& part) {
  std::size_t count = 0;
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
    ++count;
  }
  return count;
}

// The JSON the page embeds.
nlohmann::json pageData(const std::string& page) {
  const std::string open = "<script type=\"application/json\" id=\"trace-data\">";
  const std::size_t from = page.find(open) + open.size();
  return nlohmann::json::parse(page.substr(from, page.find("</script>", from) - from));
}

std::string hostRecord(const std::string& time, const std::string& entity, int n) {
  return render(Message{time, 5, 5, 'I', STORE,
                        "[insertEndpoint]: action=newEntity entityId=" + entity +
                            " endpointId=ep-" + std::to_string(n)},
                Form::THREADTIME);
}

std::string created() {
  return render(Message{"11-22 12:00:00.000", 5, 5, 'I', FACADE,
                        "[ReachabilityCache]: event=cacheCreated maxCacheSize=50"},
                Form::THREADTIME);
}

TEST(TracePageTest, KeepsEveryTextOfTheCaptureOutOfTheMarkup) {
  const std::string invalid = "bad\xff\xfe";  // not UTF-8
  const std::vector<std::string> ids = {"</script><script>alert(1)</script>",
                                        "<!--<script>",
                                        "<img/src=x/onerror=alert(2)>",
                                        "\"quoted\"&amp;",
                                        "]]>",
                                        invalid + "bytes"};
  std::string capture = created();
  for (std::size_t i = 0; i < ids.size(); ++i) {
    capture += hostRecord("11-22 12:00:01.000", ids[i], static_cast<int>(i));
  }
  TraceScope scope;
  scope.evidence.everyEntity = true;
  const CaptureTrace read = traceText(capture, scope);
  ASSERT_TRUE(read.ok) << read.error;
  const std::string page = tracePage(read.trace, 0, "<b>capture</b>.txt");

  EXPECT_EQ(occurrences(page, "<script"), 2u) << "the data's and the script's own";
  EXPECT_EQ(occurrences(page, "</script"), 2u);
  EXPECT_EQ(occurrences(page, "<!--"), 0u);
  EXPECT_NE(page.find("<title>Reachability over time: &lt;b&gt;capture&lt;/b&gt;.txt</title>"),
            std::string::npos);
  const std::string open = "id=\"trace-data\">";
  const std::size_t from = page.find(open) + open.size();
  const std::string data = page.substr(from, page.find("</script>", from) - from);
  EXPECT_EQ(data.find_first_of("<>"), std::string::npos);

  const nlohmann::json json = pageData(page);
  EXPECT_EQ(json["capture"], "<b>capture</b>.txt");
  std::vector<std::string> shown;
  for (const nlohmann::json& entity : json["caches"][0]["entities"]) {
    shown.push_back(entity["id"]);
  }
  std::vector<std::string> expected(ids.begin(), ids.end() - 1);
  expected.emplace_back("bad\xef\xbf\xbd\xef\xbf\xbd" +
                        std::string("bytes"));  // U+FFFD for each invalid byte
  EXPECT_EQ(shown, expected);
  for (const auto& [number, text] : json["lines"].items()) {
    EXPECT_NE(text.get<std::string>().find("[insertEndpoint]"), std::string::npos) << number;
  }
}

// Past 4 MiB of other processes' lines, so that the reader's numbering runs
// over the blocks it reads, the lines behind every answer and every change
// are the capture's own, under their numbers.
TEST(TracePageTest, ShowsTheCapturesOwnLinesUnderTheirNumbers) {
  std::string capture;
  for (int i = 0; capture.size() < (std::size_t{9} << 19); ++i) {
    capture += "11-22 11:59:59.000  1000  1001 I ActivityManager: filler line " +
               std::to_string(i) + " of another process, long enough to fill the block\n";
  }
  capture += stampedCapture(
      runSimulator("--devices 12 --duration 3 --interval 1 --flap-rate 30 --fast --seed 2").log);
  TraceScope scope;
  scope.evidence.everyEntity = true;
  const CaptureTrace read = traceText(capture, scope);
  ASSERT_TRUE(read.ok) << read.error;
  const nlohmann::json json = nlohmann::json::parse(tracePageData(read.trace, 0, "capture"));
  const std::vector<std::string> lines = linesOf(capture);
  std::size_t shown = 0;
  for (const nlohmann::json& cause : json["causes"]) {
    for (const nlohmann::json& number : cause[1]) {
      const std::size_t n = number.get<std::size_t>();
      ASSERT_LE(n, lines.size());
      EXPECT_EQ(json["lines"][std::to_string(n)], lines[n - 1]) << "line " << n;
      ++shown;
    }
  }
  EXPECT_GT(shown, 100u);
  const std::size_t causes = json["causes"].size();
  for (const nlohmann::json& entity : json["caches"][0]["entities"]) {
    const nlohmann::json& spans = entity["a"];
    for (std::size_t i = 4; i + 3 < spans.size(); i += 4) {  // after the cache's start
      EXPECT_LT(spans[i + 2].get<int64_t>(), static_cast<int64_t>(causes)) << entity["id"];
      EXPECT_GE(spans[i + 2].get<int64_t>(), 0) << entity["id"] << ": every change has lines";
    }
  }
}

// What the lines do not tell stays unknown on the page, apart, with its
// reason and the line that shows it; what the limits cut, the page says.
TEST(TracePageTest, ShowsUnknownSpansWithTheirReasonAndWhatTheLimitsCut) {
  // A capture that starts mid-run, then the rate limiter's notice for the
  // cache's process.
  std::string capture = hostRecord("11-22 12:00:01.000", "lamp", 0);
  for (int i = 0; i < 3; ++i) {
    capture += hostRecord("11-22 12:00:02.000", "plug", 1 + i);
  }
  capture += "11-22 12:00:03.000     5     5 I chatty  : uid=10187(home) expire 40 lines\n" +
             hostRecord("11-22 12:00:04.000", "lamp", 0);
  TraceScope scope;
  scope.evidence.everyEntity = true;
  const CaptureTrace read = traceText(capture, scope);
  ASSERT_TRUE(read.ok) << read.error;
  const nlohmann::json json = nlohmann::json::parse(tracePageData(read.trace, 0, "capture"));
  EXPECT_EQ(json["leftOut"], "");
  ASSERT_EQ(json["reasons"].size(), static_cast<std::size_t>(UnknownReason::LEFT_OUT) + 1);
  EXPECT_EQ(json["reasons"][static_cast<int>(UnknownReason::LINES_DROPPED)][0], "lines dropped");
  // The plug: unknown before its first line, as the capture starts mid-run.
  const nlohmann::json& plug = json["caches"][0]["entities"][1];
  EXPECT_EQ(plug["a"][1], static_cast<int>(Answer::UNKNOWN));
  EXPECT_EQ(plug["a"][3], static_cast<int>(UnknownReason::CAPTURE_START));
  // The lamp (named on the capture's first line): reachable (inferred),
  // unknown from the notice on with the notice as its line, then reachable
  // again.
  const nlohmann::json& lamp = json["caches"][0]["entities"][0];
  ASSERT_EQ(lamp["id"], "lamp");
  std::vector<std::pair<int, int>> spans;  // (answer, why)
  std::string noticeLine;
  for (std::size_t i = 0; i + 3 < lamp["a"].size(); i += 4) {
    spans.emplace_back(lamp["a"][i + 1], lamp["a"][i + 3]);
    const int64_t cause = lamp["a"][i + 2];
    if (lamp["a"][i + 3] == static_cast<int>(UnknownReason::LINES_DROPPED) && cause >= 0) {
      const auto number = json["causes"][cause][1][0].get<uint64_t>();
      noticeLine = json["lines"][std::to_string(number)];
    }
  }
  const int inferred = 16;
  const int unknown = static_cast<int>(Answer::UNKNOWN);
  const int reachable = static_cast<int>(Answer::REACHABLE);
  EXPECT_EQ(spans, (std::vector<std::pair<int, int>>{
                       {reachable, inferred},
                       {unknown, static_cast<int>(UnknownReason::LINES_DROPPED)},
                       {reachable, inferred}}));
  EXPECT_NE(noticeLine.find("expire 40 lines"), std::string::npos);
  // Three answers kept: the later ones are unknown, past the limits.
  scope.limits.answers = 3;
  const CaptureTrace limited = traceText(capture, scope);
  ASSERT_TRUE(limited.ok) << limited.error;
  const nlohmann::json cut = nlohmann::json::parse(tracePageData(limited.trace, 0, "capture"));
  const std::string leftOut = cut["leftOut"];
  EXPECT_EQ(leftOut.rfind("The trace's limits left out ", 0), 0u) << leftOut;
  EXPECT_NE(leftOut.find(" answers (hatched: past the limits)"), std::string::npos) << leftOut;
  bool pastLimits = false;
  for (const nlohmann::json& entity : cut["caches"][0]["entities"]) {
    for (std::size_t i = 0; i + 3 < entity["a"].size(); i += 4) {
      pastLimits = pastLimits || entity["a"][i + 3] == static_cast<int>(UnknownReason::LEFT_OUT);
    }
  }
  EXPECT_TRUE(pastLimits);
}

// Evidence for every entity is kept up to a budget; the page says from when
// it was left out, and no answer after that pretends to have lines.
TEST(TracePageTest, SaysFromWhenTheBudgetLeftTheLinesOut) {
  std::string capture = created();
  for (int i = 0; i < 40; ++i) {
    char time[32];
    std::snprintf(time, sizeof(time), "11-22 12:00:%02d.000", i + 1);
    capture += hostRecord(time, "entity-" + std::to_string(i), i);
  }
  TraceScope scope;
  scope.evidence.everyEntity = true;
  scope.evidence.budgetBytes = 2500;  // about ten lines with their causes
  const CaptureTrace read = traceText(capture, scope);
  ASSERT_TRUE(read.ok) << read.error;
  const Micros lost = read.trace.evidenceLostFrom;
  ASSERT_NE(lost, NO_TIME);
  std::size_t kept = 0;
  for (const EntityRecord& entity : read.trace.caches[0].entities) {
    for (const AnswerRecord& answer : entity.answers) {
      EXPECT_EQ(answer.cause == NO_CAUSE, answer.at >= lost) << entity.id;
      kept += answer.cause == NO_CAUSE ? 0 : 1;
    }
  }
  EXPECT_GT(kept, 5u);
  EXPECT_LT(kept, 15u);
  const nlohmann::json json = nlohmann::json::parse(tracePageData(read.trace, 0, "capture"));
  EXPECT_EQ(json["evidenceLostFrom"].get<Micros>() * 1000 + json["origin"].get<Micros>() * 1000,
            lost);
}

}  // namespace
}  // namespace veranda::reachabilityCache::trace::testing
