// The library's log seam: a sink replaced or removed while threads write
// takes every line whole, and is never used once the call that replaced it
// has returned. This binary has no capture of its own (OWN_LOG_CAPTURE), so
// the tests here own the seam.
#include "diagnostics/LogSink.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace veranda::reachabilityCache {
namespace {

constexpr int INFO = 4;
constexpr const char* TAG = "SinkTest";

struct Received {
  int priority;
  std::string tag;
  std::string text;
};

// Keeps what it receives; a line that arrives after retire() is counted as a
// use of a sink its installer may already have destroyed.
class KeepingSink final : public LogSinkForTesting {
 public:
  void write(int priority, const char* tag, const char* text) override {
    std::lock_guard<std::mutex> lock(mutex_);
    if (retired_) {
      ++lateWrites_;
    }
    lines_.push_back({priority, tag, text});
  }

  void retire() {
    std::lock_guard<std::mutex> lock(mutex_);
    retired_ = true;
  }
  std::vector<Received> lines() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
  }
  int lateWrites() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return lateWrites_;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<Received> lines_;
  bool retired_ = false;
  int lateWrites_ = 0;
};

std::string lineText(std::size_t writer, std::size_t number) {
  return "writer=" + std::to_string(writer) + " line=" + std::to_string(number);
}

TEST(LogSinkTest, SinksReplacedWhileThreadsWriteGetEveryLineOnceWholeAndNoneLate) {
  constexpr std::size_t WRITERS = 3;
  constexpr std::size_t REPLACEMENTS = 200;
  std::vector<std::unique_ptr<KeepingSink>> sinks;
  sinks.push_back(std::make_unique<KeepingSink>());
  setLogSinkForTesting(sinks.back().get());

  std::atomic<bool> stop{false};
  std::atomic<std::size_t> total{0};
  std::vector<std::size_t> written(WRITERS, 0);
  std::vector<std::thread> writers;
  for (std::size_t writer = 0; writer < WRITERS; ++writer) {
    writers.emplace_back([&, writer] {
      for (std::size_t number = 0; !stop.load(); ++number) {
        writeLogLine(INFO, TAG, lineText(writer, number).c_str());
        written[writer] = number + 1;
        ++total;
      }
    });
  }
  for (std::size_t replacement = 0; replacement < REPLACEMENTS; ++replacement) {
    // Lines keep coming between the replacements.
    while (total.load() < (replacement + 1) * 10) {
      std::this_thread::yield();
    }
    sinks.push_back(std::make_unique<KeepingSink>());
    setLogSinkForTesting(sinks.back().get());
    sinks[sinks.size() - 2]->retire();
  }
  stop = true;
  for (std::thread& writer : writers) {
    writer.join();
  }
  setLogSinkForTesting(nullptr);
  sinks.back()->retire();
  writeLogLine(3, TAG, "after the last sink");  // to the platform log

  // Each writer's lines, across the sinks in the order they were installed,
  // are its lines in the order written: none lost, none twice, none torn.
  std::vector<std::size_t> next(WRITERS, 0);
  for (std::size_t index = 0; index < sinks.size(); ++index) {
    EXPECT_EQ(sinks[index]->lateWrites(), 0) << "sink " << index;
    for (const Received& line : sinks[index]->lines()) {
      ASSERT_EQ(line.priority, INFO);
      ASSERT_EQ(line.tag, TAG);
      const auto writer = static_cast<std::size_t>(line.text[7] - '0');
      ASSERT_LT(writer, WRITERS) << line.text;
      ASSERT_EQ(line.text, lineText(writer, next[writer])) << "sink " << index;
      ++next[writer];
    }
  }
  EXPECT_EQ(next, written);
}

TEST(LogSinkTest, ReplacingWaitsForAWriteInProgressAndLinesReturnToThePlatformLog) {
  // The sink holds its first write until the test lets it go.
  class HoldingSink final : public LogSinkForTesting {
   public:
    void write(int /*priority*/, const char* /*tag*/, const char* text) override {
      std::unique_lock<std::mutex> lock(mutex);
      texts.emplace_back(text);
      entered.notify_all();
      released.wait(lock, [this] { return let; });
      finished = true;
    }
    std::mutex mutex;
    std::condition_variable entered, released;
    std::vector<std::string> texts;
    bool let = false;
    bool finished = false;
  } sink;
  setLogSinkForTesting(&sink);
  std::thread writer([] { writeLogLine(INFO, TAG, "held"); });
  {
    std::unique_lock<std::mutex> lock(sink.mutex);
    ASSERT_TRUE(
        sink.entered.wait_for(lock, std::chrono::seconds(10), [&] { return !sink.texts.empty(); }));
  }

  bool removed = false;
  bool finishedWhenRemoved = false;
  std::condition_variable removal;
  std::thread remover([&] {
    setLogSinkForTesting(nullptr);
    std::lock_guard<std::mutex> lock(sink.mutex);
    finishedWhenRemoved = sink.finished;
    removed = true;
    removal.notify_all();
  });
  {
    // A removal that did not wait for the write would return meanwhile.
    std::unique_lock<std::mutex> lock(sink.mutex);
    EXPECT_FALSE(removal.wait_for(lock, std::chrono::milliseconds(50), [&] { return removed; }));
    sink.let = true;
  }
  sink.released.notify_all();
  writer.join();
  remover.join();
  EXPECT_TRUE(finishedWhenRemoved);

  writeLogLine(3, TAG, "to the platform log");
  std::lock_guard<std::mutex> lock(sink.mutex);
  EXPECT_EQ(sink.texts, std::vector<std::string>{"held"});
}

TEST(LogSinkTest, APermanentSinkTakesLinesUntilReplaced) {
  static auto* forever = new KeepingSink;  // lives to the end, as it must
  const std::size_t before = forever->lines().size();
  setPermanentLogSinkForTesting(forever);
  writeLogLine(INFO, TAG, "kept");
  setLogSinkForTesting(nullptr);
  writeLogLine(3, TAG, "to the platform log");
  ASSERT_EQ(forever->lines().size(), before + 1);
  EXPECT_EQ(forever->lines().back().text, "kept");
}

}  // namespace
}  // namespace veranda::reachabilityCache
