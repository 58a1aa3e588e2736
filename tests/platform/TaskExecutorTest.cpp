#include "taskExecutor/TaskExecutor.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

namespace veranda {
namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;
constexpr milliseconds kTimeout{5000};

// The steps that tasks took, one letter each, in order.
class Trace {
 public:
  void add(char step) {
    std::lock_guard<std::mutex> lock(mutex_);
    steps_ += step;
    changed_.notify_all();
  }
  std::string waitFor(std::size_t count) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait_for(lock, kTimeout, [&] { return steps_.size() >= count; });
    return steps_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::string steps_;
};

std::shared_ptr<TaskExecutor> makeExecutor() { return TaskExecutor::create(nullptr, nullptr); }

// Waits until `condition` holds, for at most the test timeout.
template <typename Condition>
void spinUntil(Condition condition) {
  const auto deadline = Clock::now() + kTimeout;
  while (!condition() && Clock::now() < deadline) {
    std::this_thread::yield();
  }
}

TEST(TaskExecutorTest, RunsTasksInPostingOrderAndTasksMayPost) {
  Trace trace;
  std::atomic<bool> release{false};
  auto executor = makeExecutor();
  executor->post([&] { spinUntil([&] { return release.load(); }); });
  executor->post([&] {
    trace.add('a');
    executor->post([&] { trace.add('c'); });
  });
  executor->post([&] { trace.add('b'); });
  // Delays of zero or less mean now: these keep posting order with plain posts.
  executor->postDelayed([&] { trace.add('d'); }, milliseconds(0));
  executor->post([&] { trace.add('e'); });
  executor->postDelayed([&] { trace.add('f'); }, milliseconds(-5));
  release = true;
  EXPECT_EQ(trace.waitFor(6), "abdefc");
}

TEST(TaskExecutorTest, DelayedTasksRunWhenDueWithoutBlockingLaterOnes) {
  Trace trace;
  auto executor = makeExecutor();
  const auto start = Clock::now();
  Clock::time_point lateRan;
  executor->postDelayed(
      [&] {
        lateRan = Clock::now();
        trace.add('z');
      },
      milliseconds(300));
  executor->postDelayed([&] { trace.add('b'); }, milliseconds(100));
  for (char step = 'c'; step <= 'h'; ++step) {  // equal delays keep posting order
    executor->postDelayed([&trace, step] { trace.add(step); }, milliseconds(200));
  }
  executor->postDelayed([&] { trace.add('!'); }, std::chrono::hours(1));
  executor->post([&] { trace.add('a'); });
  EXPECT_EQ(trace.waitFor(9), "abcdefghz");
  EXPECT_GE(lateRan - start, milliseconds(300));
  executor.reset();  // drops the task due in an hour
  EXPECT_EQ(trace.waitFor(0), "abcdefghz");
}

TEST(TaskExecutorTest, RemoveCallbacksDropsPendingTasksButNotTheRunningOne) {
  Trace trace;
  std::atomic<bool> release{false};
  auto executor = makeExecutor();
  executor->post([&] {
    trace.add('r');
    spinUntil([&] { return release.load(); });
    trace.add('f');
  });
  executor->post([&] { trace.add('!'); });
  executor->postDelayed([&] { trace.add('!'); }, milliseconds(1));
  ASSERT_EQ(trace.waitFor(1), "r");
  executor->removeCallbacksAndMessages();
  release = true;
  executor->post([&] { trace.add('a'); });
  EXPECT_EQ(trace.waitFor(3), "rfa");
}

TEST(TaskExecutorTest, DestructorDropsPendingTasksThenWaitsForTheRunningOne) {
  Trace trace;
  auto pending = std::make_shared<int>(0);
  std::weak_ptr<int> watch = pending;
  auto executor = makeExecutor();
  executor->post([&] {
    trace.add('r');
    spinUntil([&] { return watch.expired(); });  // only dropping the pending task ends this
    trace.add(watch.expired() ? 'f' : 't');
  });
  executor->post([&trace, pending] { trace.add('!'); });
  pending.reset();
  ASSERT_EQ(trace.waitFor(1), "r");
  executor.reset();
  EXPECT_EQ(trace.waitFor(0), "rf");
}

TEST(TaskExecutorTest, LastReferenceDroppedInsideATaskDoesNotDeadlock) {
  auto trace = std::make_shared<Trace>();
  auto go = std::make_shared<std::atomic<bool>>(false);
  auto executor = makeExecutor();
  TaskExecutor* raw = executor.get();
  raw->post([self = executor, trace, go]() mutable {
    spinUntil([&] { return go->load(); });
    self.reset();  // the executor is destroyed here, on its own worker
    trace->add('d');
  });
  executor.reset();
  *go = true;
  EXPECT_EQ(trace->waitFor(1), "d");
}

}  // namespace
}  // namespace veranda
