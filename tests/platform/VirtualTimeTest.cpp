#include "reachabilityCache/testing/VirtualTime.h"

#include <gtest/gtest.h>

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
  EXPECT_EQ(time.elapsed(), milliseconds(18));
  time.advance(milliseconds(1));
  EXPECT_EQ(journal.text(), "first@10 second@10 driver@13 back@18 late@19");
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
}

}  // namespace
}  // namespace veranda
