// The trace tool and the library agree on every line the library can write:
// the tool reads each as the library meant it, knows its label, and takes
// none for ambiguous. A line the library starts writing that the tool does
// not know fails here.
#include <gtest/gtest.h>

#include <cstdio>
#include <iterator>
#include <string>
#include <vector>

#include "CaptureFiles.h"
#include "LibraryLine.h"
#include "LineRules.h"
#include "LogRecorder.h"
#include "LogTour.h"
#include "diagnostics/LogSchema.h"

namespace veranda::reachabilityCache::trace::testing {
namespace {

char priorityLetter(int priority) {
  return "??VDIWEFA"[priority >= 0 && priority < 9 ? priority : 0];
}

std::string time(std::size_t line) {
  char text[32];
  std::snprintf(text, sizeof(text), "11-22 12:%02zu:%02zu.%03zu", line / 60000 % 60,
                line / 1000 % 60, line % 1000);
  return text;
}

TEST(TraceSchemaTest, TheToolReadsEveryLineTheLibraryWrites) {
  test::LogRecorder::instance().clear();
  test::writeEveryLine();
  const std::vector<test::LogLine> lines = test::LogRecorder::instance().take();
  ASSERT_GT(lines.size(), 100u);
  std::string capture;
  std::string unknown;
  for (std::size_t i = 0; i < lines.size(); ++i) {
    const test::LogLine& line = lines[i];
    capture +=
        render(Message{time(i), 4711, 4712, priorityLetter(line.priority), line.tag, line.text},
               Form::THREADTIME);
    if (line.tag == logSchema::tag::METRIC) {
      if (!cacheMetricName(line.text)) {
        unknown += "metric: " + line.text + "\n";
      }
      continue;
    }
    const std::optional<LibraryLine> read = parseLibraryLine(line.text);
    if (!read || !knowsLabel(read->label, line.tag)) {
      unknown += line.tag + ": " + line.text + "\n";
    }
  }
  EXPECT_EQ(unknown, "") << "lines of the library the tool does not know";

  const CaptureTrace read = traceText(capture);
  ASSERT_TRUE(read.ok) << read.error;
  EXPECT_EQ(read.trace.damagedLines, 0u) << read.trace.firstDamaged;
  // The facade's checker line is read and set aside: every line counts.
  EXPECT_EQ(read.trace.messages, lines.size());
  for (const CacheRecord& cache : read.trace.caches) {
    std::string ambiguous;
    for (const AmbiguousLine& line : cache.ambiguous) {
      ambiguous += line.why + ": " + line.line + "\n";
    }
    EXPECT_EQ(cache.ambiguousLines, 0u) << ambiguous;
  }
}

// What the schema names, the tool knows: every label under its component's
// tag, every status of a summary's entry, every metric of the cache.
TEST(TraceSchemaTest, TheToolKnowsEveryNameOfTheSchema) {
  using namespace logSchema;
  for (const char* labelName : label::ALL) {
    bool known = false;
    for (const char* tagName : tag::ALL) {
      known = known || knowsLabel(labelName, tagName);
    }
    EXPECT_TRUE(known) << "[" << labelName << "]";
  }
  for (const char* status : summary::ALL) {
    const std::string entry = std::string(summary::ENTRY_START).substr(1) + "ep (" +
                              key::ENTITY_ID + "=lamp, " + key::ADAPTER + "=W): " + status;
    const std::optional<SummaryEntry> parsed = parseSummaryEntry(entry);
    ASSERT_TRUE(parsed) << entry;
    EXPECT_TRUE(parsed->entityId == "lamp" && parsed->endpointId == "ep" &&
                parsed->adapterName == "W")
        << entry;
  }
  for (const char* name : metric::ALL) {
    EXPECT_EQ(cacheMetricName(std::string("[Metric]: ") + metric::DIMENSION_METRIC_NAME + "=" +
                              name + " program=p source=s"),
              std::string_view(name));
  }
}

}  // namespace
}  // namespace veranda::reachabilityCache::trace::testing
