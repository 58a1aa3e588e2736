// The host test kit's LogCapture. This binary has no capture of its own
// (OWN_LOG_CAPTURE): each test decides which captures live, and with none
// the lines go to the platform log.
#include "reachabilityCache/testing/LogCapture.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "diagnostics/LogSchema.h"
#include "diagnostics/LogSink.h"
#include "diagnostics/ReachabilityCacheMetrics.h"
#include "store/CacheCore.h"

namespace veranda::reachabilityCache::test {
namespace {

namespace tag = logSchema::tag;
using Lines = std::vector<LogLine>;

const std::string ROUTING = " program=762veg6l source=nlef/2/03330473";

// What the process writes to standard error while it lives (the platform log
// on a host writes there).
class StandardErrorCapture {
 public:
  StandardErrorCapture()
      : path_((std::filesystem::temp_directory_path() / "logCaptureTest.XXXXXX").string()) {
    std::fflush(stderr);
    const int file = mkstemp(path_.data());
    saved_ = dup(STDERR_FILENO);
    dup2(file, STDERR_FILENO);
    close(file);
  }
  ~StandardErrorCapture() {
    restore();
    unlink(path_.c_str());
  }

  std::string text() {
    restore();
    std::ifstream file(path_);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  }

 private:
  void restore() {
    if (saved_ >= 0) {
      std::fflush(stderr);
      dup2(saved_, STDERR_FILENO);
      close(saved_);
      saved_ = -1;
    }
  }

  std::string path_;
  int saved_ = -1;
};

TEST(LogCaptureTest, CollectsTheCachesAndItsMetricsLinesWithPriorityTagAndText) {
  LogCapture log;
  CacheCore store(1);
  store.isEntityPresent("lamp");
  ReachabilityCacheMetrics::emitCacheFull(1);

  const LogLine created{4, tag::STORE, "[CacheCore]: maxSize=1"};
  const LogLine asked{3, tag::STORE, "[isEntityPresent]: entityId=lamp present=false"};
  const LogLine metric{4, tag::METRIC,
                       "[Metric]: metricName=ReachabilityCache.CacheFull maxSize=1" + ROUTING};
  EXPECT_EQ(log.lines(), (Lines{created, asked, metric}));
  EXPECT_EQ(log.count(), 3u);
  EXPECT_EQ(log.linesWithTag(tag::STORE), (Lines{created, asked}));
  EXPECT_EQ(log.texts(tag::METRIC), std::vector<std::string>{metric.text});
  EXPECT_EQ(log.countContaining(tag::STORE, "entityId=lamp"), 1u);
  EXPECT_EQ(log.countContaining(tag::METRIC, "entityId=lamp"), 0u);
  EXPECT_TRUE(log.contains(asked));
  EXPECT_FALSE(log.contains({4, asked.tag, asked.text}));  // the whole line counts

  EXPECT_EQ(log.take(), (Lines{created, asked, metric}));
  EXPECT_EQ(log.count(), 0u);
  store.isEntityPresent("plug");
  EXPECT_EQ(log.count(), 1u);
  log.clear();
  EXPECT_EQ(log.lines(), Lines{});
}

TEST(LogCaptureTest, EachLiveCaptureGetsTheLinesWrittenWhileItLives) {
  CacheCore store(1);
  LogCapture outer;
  store.isEntityPresent("a");
  {
    LogCapture inner;
    store.isEntityPresent("b");
    EXPECT_EQ(inner.texts(tag::STORE),
              std::vector<std::string>{"[isEntityPresent]: entityId=b present=false"});
  }
  store.isEntityPresent("c");
  EXPECT_EQ(outer.count(), 3u);
  EXPECT_EQ(outer.countContaining(tag::STORE, "entityId=b"), 1u);
}

TEST(LogCaptureTest, SilenceDropsLinesAndKeepsWhatWasCollected) {
  CacheCore store(1);
  LogCapture log;
  store.isEntityPresent("kept");
  log.setMode(LogCapture::Mode::SILENCE);
  store.isEntityPresent("dropped");
  log.setMode(LogCapture::Mode::COLLECT);
  store.isEntityPresent("kept too");
  EXPECT_EQ(log.countContaining(tag::STORE, "kept"), 2u);
  EXPECT_EQ(log.countContaining(tag::STORE, "dropped"), 0u);

  LogCapture silent(LogCapture::Mode::SILENCE);
  store.isEntityPresent("x");
  EXPECT_EQ(silent.count(), 0u);
}

TEST(LogCaptureTest, KeepsLinesOffStandardErrorOnlyWhileItLives) {
  StandardErrorCapture before;
  {
    const CacheCore store(7);  // an info line, which the host's log prints
    ReachabilityCacheMetrics::emitCacheFull(7);
  }
  const std::string printed = before.text();
  EXPECT_NE(printed.find("[CacheCore]: maxSize=7"), std::string::npos) << printed;
  EXPECT_NE(printed.find("metricName=ReachabilityCache.CacheFull maxSize=7"), std::string::npos)
      << printed;

  StandardErrorCapture during;
  {
    LogCapture silent(LogCapture::Mode::SILENCE);
    const CacheCore store(8);
    ReachabilityCacheMetrics::emitCacheFull(8);
  }
  EXPECT_EQ(during.text(), "");

  StandardErrorCapture after;
  {
    const CacheCore store(9);
    ReachabilityCacheMetrics::emitCacheFull(9);
  }
  const std::string printedAfter = after.text();
  EXPECT_NE(printedAfter.find("[CacheCore]: maxSize=9"), std::string::npos) << printedAfter;
  EXPECT_NE(printedAfter.find("maxSize=9" + ROUTING), std::string::npos) << printedAfter;
}

// Captures made and destroyed one after another while threads write: each
// sees, from every thread, an unbroken run of that thread's lines.
TEST(LogCaptureTest, CapturesComeAndGoWhileThreadsWrite) {
  constexpr std::size_t WRITERS = 2;
  constexpr int CAPTURES = 30;
  std::atomic<bool> stop{false};
  std::vector<std::thread> writers;
  for (std::size_t writer = 0; writer < WRITERS; ++writer) {
    writers.emplace_back([&, writer] {
      for (std::size_t number = 0; !stop.load(); ++number) {
        writeLogLine(3, "CaptureTest",
                     (std::to_string(writer) + " " + std::to_string(number)).c_str());
      }
    });
  }
  for (int capture = 0; capture < CAPTURES; ++capture) {
    LogCapture log;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (log.count() < 20 && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::yield();
    }
    std::vector<long> last(WRITERS, -1);
    for (const LogLine& line : log.lines()) {
      const auto writer = static_cast<std::size_t>(line.text[0] - '0');
      const long number = std::stol(line.text.substr(2));
      ASSERT_TRUE(last[writer] < 0 || number == last[writer] + 1)
          << "capture " << capture << ": " << line.text << " after " << last[writer];
      last[writer] = number;
    }
  }
  stop = true;
  for (std::thread& writer : writers) {
    writer.join();
  }
}

}  // namespace
}  // namespace veranda::reachabilityCache::test
