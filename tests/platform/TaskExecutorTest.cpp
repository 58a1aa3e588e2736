#include "taskExecutor/TaskExecutor.h"

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "PlatformTestSupport.h"
#include "reachabilityCache/testing/VirtualTime.h"

namespace veranda {
namespace {

using platformTesting::Journal;
using std::chrono::milliseconds;

TEST(TaskExecutorTest, RunsTasksByDueTimeThenPostingOrderAndDropsOnlyThoseNotStarted) {
  reachabilityCache::test::VirtualTime time;
  Journal journal;
  auto add = [&](const std::string& entry) { return [&journal, entry] { journal.add(entry); }; };
  // A task that adds `entry`, waits for `release`, and adds `entry` + "Done".
  auto held = [&](const std::string& entry, const std::string& release) {
    return [&journal, entry, release] {
      journal.add(entry);
      journal.waitFor(release);
      journal.add(entry + "Done");
    };
  };
  auto executor = TaskExecutor::create(nullptr, nullptr);
  executor->post(held("first", "go"));
  journal.waitFor("first");
  executor->post(add("!"));
  executor->postDelayed(add("!"), milliseconds(1));
  executor->removeCallbacksAndMessages();             // drops those two, not the running task
  executor->post([&] { executor->post(add("g")); });  // tasks may post
  executor->post(add("b"));
  executor->postDelayed(add("c"), milliseconds(0));  // zero or less means now
  executor->post(add("d"));
  executor->postDelayed(add("e"), milliseconds(-5));
  executor->post(add("f"));
  executor->postDelayed(add("never"), milliseconds::max());  // saturates: not in the past
  executor->postDelayed(add("never"), milliseconds(10'000'000'000'000));  // 1e10 s
  executor->postDelayed(add("m"), milliseconds(400));
  executor->postDelayed(add("h"), milliseconds(300));  // equal due times keep posting order
  executor->postDelayed(add("i"), milliseconds(300));
  executor->postDelayed(
      [&] {
        journal.add("x");
        executor->postDelayed(add("k"), milliseconds(1));  // due inside the window
      },
      milliseconds(299));
  executor->postDelayed(add("j"), milliseconds(300));
  journal.add("go");
  time.runUntilIdle();
  EXPECT_EQ(journal.text(), "first go firstDone b c d e f g");
  time.advance(milliseconds(300));
  EXPECT_EQ(journal.text(), "first go firstDone b c d e f g x h i j k");
  time.advance(std::chrono::hours(24 * 365));
  EXPECT_EQ(journal.text(), "first go firstDone b c d e f g x h i j k m");

  executor->post(held("last", "dropped"));
  // Adds "dropped" once the task holding it is destroyed.
  std::shared_ptr<void> notice(nullptr, [&journal](void*) { journal.add("dropped"); });
  executor->post([&journal, notice] { journal.add("!"); });
  notice.reset();
  journal.waitFor("last");
  executor.reset();  // drops the pending task and waits for the running one
  EXPECT_EQ(journal.text(), "first go firstDone b c d e f g x h i j k m last dropped lastDone");
}

TEST(TaskExecutorTest, LastReferenceDroppedInsideATaskDoesNotDeadlock) {
  auto journal = std::make_shared<Journal>();
  auto executor = TaskExecutor::create(nullptr, nullptr);
  executor->post([self = executor, journal]() mutable {
    journal->waitFor("released");
    self.reset();  // the executor is destroyed here, on its own worker
    journal->add("destroyed");
  });
  executor.reset();
  journal->add("released");
  EXPECT_EQ(journal->waitFor("destroyed"), "released destroyed");
}

}  // namespace
}  // namespace veranda
