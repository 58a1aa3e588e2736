#include "taskExecutor/TaskExecutor.h"

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "PlatformTestSupport.h"

namespace veranda {
namespace {

using platformTesting::Journal;
using std::chrono::milliseconds;

TEST(TaskExecutorTest, RunsTasksByDueTimeThenPostingOrderAndDropsOnlyThoseNotStarted) {
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
  executor->post([&] { executor->post(add("f")); });  // tasks may post
  executor->post(add("b"));
  executor->postDelayed(add("c"), milliseconds(0));  // zero or less means now
  executor->post(add("d"));
  executor->postDelayed(add("e"), milliseconds(-5));
  const auto start = std::chrono::steady_clock::now();
  executor->postDelayed(add("k"), milliseconds(400));
  executor->postDelayed(add("g"), milliseconds(200));
  executor->postDelayed(add("h"), milliseconds(300));  // equal delays keep posting order
  executor->postDelayed(add("i"), milliseconds(300));
  executor->postDelayed(add("j"), milliseconds(300));
  journal.add("go");
  EXPECT_EQ(journal.waitFor("k"), "first go firstDone b c d e f g h i j k");
  EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(400));

  executor->post(held("last", "dropped"));
  // Adds "dropped" once the task holding it is destroyed.
  std::shared_ptr<void> notice(nullptr, [&journal](void*) { journal.add("dropped"); });
  executor->post([&journal, notice] { journal.add("!"); });
  notice.reset();
  journal.waitFor("last");
  executor.reset();  // drops the pending task and waits for the running one
  EXPECT_EQ(journal.waitFor("dropped"),
            "first go firstDone b c d e f g h i j k last dropped lastDone");
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
