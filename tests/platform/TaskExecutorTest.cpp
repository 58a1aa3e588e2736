#include "taskExecutor/TaskExecutor.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>

#include "PlatformTestSupport.h"

namespace veranda {
namespace {

using platformTesting::Journal;
using platformTesting::spinUntil;
using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

std::shared_ptr<TaskExecutor> makeExecutor() { return TaskExecutor::create(nullptr, nullptr); }

// A task that adds `entry` to `journal`.
std::function<void()> step(Journal& journal, const std::string& entry) {
  return [&journal, entry] { journal.add(entry); };
}

TEST(TaskExecutorTest, RunsImmediateTasksInPostingOrderAndDelayedOnesByDueTime) {
  Journal journal;
  std::atomic<bool> release{false};
  auto executor = makeExecutor();
  executor->post([&] { spinUntil([&] { return release.load(); }); });
  executor->post([&] {
    journal.add("a");
    executor->post(step(journal, "f"));  // tasks may post
  });
  executor->post(step(journal, "b"));
  // Delays of zero or less mean now: these keep posting order with plain posts.
  executor->postDelayed(step(journal, "c"), milliseconds(0));
  executor->post(step(journal, "d"));
  executor->postDelayed(step(journal, "e"), milliseconds(-5));
  const Clock::time_point start = Clock::now();
  executor->postDelayed(step(journal, "k"), milliseconds(400));
  executor->postDelayed(step(journal, "g"), milliseconds(200));
  for (const char* entry : {"h", "i", "j"}) {  // equal delays keep posting order
    executor->postDelayed(step(journal, entry), milliseconds(300));
  }
  release = true;
  EXPECT_EQ(journal.waitFor(11), "a b c d e f g h i j k");
  EXPECT_GE(Clock::now() - start, milliseconds(400));
}

TEST(TaskExecutorTest, RemovingAndDestroyingDropPendingTasksButNotTheRunningOne) {
  Journal journal;
  std::atomic<bool> release{false};
  auto pending = std::make_shared<int>(0);
  std::weak_ptr<int> watch = pending;
  auto executor = makeExecutor();
  executor->post([&] {
    journal.add("first");
    spinUntil([&] { return release.load(); });
    journal.add("firstDone");
  });
  executor->post(step(journal, "!"));
  executor->postDelayed(step(journal, "!"), milliseconds(1));
  ASSERT_EQ(journal.waitFor(1), "first");
  executor->removeCallbacksAndMessages();
  release = true;
  executor->post([&] {
    journal.add("second");
    spinUntil([&] { return watch.expired(); });  // only dropping the pending task ends this
    journal.add(watch.expired() ? "secondDone" : "timedOut");
  });
  executor->post([&journal, pending] { journal.add("!"); });
  pending.reset();
  ASSERT_EQ(journal.waitFor(3), "first firstDone second");
  executor.reset();  // waits for the running task
  EXPECT_EQ(journal.waitFor(0), "first firstDone second secondDone");
}

TEST(TaskExecutorTest, LastReferenceDroppedInsideATaskDoesNotDeadlock) {
  auto journal = std::make_shared<Journal>();
  auto go = std::make_shared<std::atomic<bool>>(false);
  auto executor = makeExecutor();
  executor->post([self = executor, journal, go]() mutable {
    spinUntil([&] { return go->load(); });
    self.reset();  // the executor is destroyed here, on its own worker
    journal->add("destroyed");
  });
  executor.reset();
  *go = true;
  EXPECT_EQ(journal->waitFor(1), "destroyed");
}

}  // namespace
}  // namespace veranda
