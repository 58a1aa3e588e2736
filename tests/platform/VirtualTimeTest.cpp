#include "reachabilityCache/testing/VirtualTime.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "PlatformTestSupport.h"
#include "applianceDriver/SimulatedApplianceDriver.h"
#include "taskExecutor/TaskExecutor.h"

namespace veranda {
namespace {

using platformTesting::Journal;
using reachabilityCache::test::VirtualTime;
using std::chrono::milliseconds;

// Work hops between two executors and a driver, each hop on its own thread:
// advance() returns only once every hop due inside the window has run.
TEST(VirtualTimeTest, AdvanceWaitsForWorkThatHopsBetweenQueues) {
  VirtualTime time;
  Journal journal;
  applianceDriver::SimulatedApplianceDriver driver;
  driver.setAnswerLatency(milliseconds(3));
  auto first = TaskExecutor::create(nullptr, nullptr);
  auto second = TaskExecutor::create(nullptr, nullptr);
  auto note = [&](const std::string& what) {
    journal.add(what + "@" + std::to_string(time.elapsed().count()));
  };
  first->postDelayed(
      [&] {
        note("first");
        second->post([&] {
          note("second");
          driver.getReachableDevices("r", [&](const auto&) {
            note("driver");
            first->postDelayed(
                [&] {
                  std::this_thread::sleep_for(milliseconds(20));  // slow work, in real time
                  note("back");
                },
                milliseconds(5));
          });
        });
      },
      milliseconds(10));
  second->postDelayed([&] { note("late"); }, milliseconds(19));
  time.advance(milliseconds(18));
  EXPECT_EQ(journal.text(), "first@10 second@10 driver@13 back@18");
  EXPECT_EQ(time.elapsed().count(), 18);
  time.advance(milliseconds(1));
  EXPECT_EQ(journal.text(), "first@10 second@10 driver@13 back@18 late@19");
}

// What a test reads of virtual time, and moving it until something has
// happened.
TEST(VirtualTimeTest, NowPendingTasksAndAdvanceUntil) {
  VirtualTime time;
  const auto start = time.now();
  auto executor = TaskExecutor::create(nullptr, nullptr);
  applianceDriver::SimulatedApplianceDriver driver;
  driver.setAnswerLatency(milliseconds(400));
  std::atomic<bool> answered{false};
  executor->postDelayed([] {}, milliseconds(100));
  executor->postDelayed([] {}, std::chrono::hours(1));
  driver.getReachableDevices("r", [&](const auto&) { answered = true; });
  EXPECT_EQ(time.pendingTasks(), 3U);

  EXPECT_TRUE(time.advanceUntil([&] { return answered.load(); }, milliseconds(1000)));
  EXPECT_EQ(time.elapsed().count(), 400);  // stopped at the answer
  EXPECT_EQ(time.now() - start, std::chrono::steady_clock::duration(milliseconds(400)));
  EXPECT_EQ(time.pendingTasks(), 1U);
  EXPECT_TRUE(time.advanceUntil([&] { return answered.load(); }, milliseconds(1000)));
  EXPECT_EQ(time.elapsed().count(), 400);  // held already: time stays
  EXPECT_FALSE(time.advanceUntil([] { return false; }, milliseconds(250)));
  EXPECT_EQ(time.elapsed().count(), 650);  // the whole limit
}

// A delay too long for the clock means "never": moving time as far as it goes
// never reaches it, and a task re-posting itself that far runs once.
TEST(VirtualTimeTest, NeverIsNeverReached) {
  VirtualTime time;
  auto executor = TaskExecutor::create(nullptr, nullptr);
  std::atomic<int> runs{0};
  std::function<void()> again = [&] {
    ++runs;
    executor->postDelayed(again, milliseconds::max());
  };
  executor->postDelayed(again, milliseconds(1000));
  time.advance(milliseconds::max());
  time.advance(milliseconds::max());
  EXPECT_EQ(runs, 1);
  EXPECT_EQ(time.pendingTasks(), 1U);
  EXPECT_GT(time.elapsed(), std::chrono::hours(24 * 365 * 200));  // as far as it goes
}

// Threads that move time at once each move it by their whole delta.
TEST(VirtualTimeTest, SeveralThreadsAdvancingLoseNoTime) {
  VirtualTime time;
  auto executor = TaskExecutor::create(nullptr, nullptr);
  std::atomic<int> ticks{0};
  std::function<void()> tick = [&] {
    ++ticks;
    executor->postDelayed(tick, milliseconds(1));
  };
  executor->postDelayed(tick, milliseconds(1));
  constexpr int STEPS = 500;
  auto advanceSteps = [&] {
    for (int i = 0; i < STEPS; ++i) {
      time.advance(milliseconds(1));
    }
  };
  std::thread first(advanceSteps);
  std::thread second(advanceSteps);
  first.join();
  second.join();
  EXPECT_EQ(time.elapsed().count(), 2 * STEPS);
  EXPECT_EQ(ticks, 2 * STEPS);
}

TEST(VirtualTimeDeathTest, MisuseEndsWithAMessageInsteadOfAHang) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        VirtualTime one;
        VirtualTime two;
      },
      "virtual time: .*a second VirtualTime");
  EXPECT_DEATH(
      {
        VirtualTime time;
        auto executor = TaskExecutor::create(nullptr, nullptr);
        executor->post([&] { time.advance(milliseconds(1)); });
        time.runUntilIdle();
      },
      "virtual time: advance\\(\\) called from a task .* it would wait for itself");
  EXPECT_DEATH(
      {
        VirtualTime time;
        auto executor = TaskExecutor::create(nullptr, nullptr);
        std::function<void()> again = [&] { executor->post(again); };
        executor->post(again);
        time.runUntilIdle();
      },
      "virtual time: 10000 tasks in a row were posted with no delay");
  // A periodic task over a long advance: a bound of tasks instead of hours.
  EXPECT_DEATH(
      {
        VirtualTime time;
        time.setTaskLimit(1000);
        auto executor = TaskExecutor::create(nullptr, nullptr);
        std::function<void()> tick = [&] { executor->postDelayed(tick, milliseconds(1)); };
        executor->postDelayed(tick, milliseconds(1));
        time.advance(milliseconds(500));  // within the bound
        time.advance(std::chrono::hours(1));
      },
      "virtual time: advance\\(\\) has run more than 1000 tasks \\(its limit\\) and reached "
      "1.001 s of the 3600.000 s asked for");
  EXPECT_DEATH(
      {
        VirtualTime time;
        time.advanceUntil([&] { return time.advanceUntil([] { return true; }, milliseconds(1)); },
                          milliseconds(1));
      },
      "virtual time: advanceUntil\\(\\) called from inside a condition of advanceUntil\\(\\)");
}

}  // namespace
}  // namespace veranda
