// Declarations of the platform's task executor: a single worker thread that
// runs posted tasks one at a time. The closed executor library provides it on
// a device; this stand-in keeps the same contract on every build.
#pragma once

#include <chrono>
#include <functional>
#include <memory>

namespace veranda {

namespace scheduling {
class DelayedTaskQueue;
}  // namespace scheduling

class Message;            // the executor library's message type
class DynamicThreadPool;  // the executor library's pool type

// Runs tasks on one worker thread of its own, one at a time: immediate tasks
// in posting order, delayed tasks once due by the stand-ins' clock (the
// steady clock, or virtual time in a test), equal due times in posting order.
// All members are safe to call from any thread, the worker included.
//
// Lifetime: the destructor drops every task not yet started and waits for a
// running one to return, unless it runs on the worker itself (the last
// reference dropped by a task); then the worker finishes that task and exits
// on its own. Tasks must not outlive what they capture: drop them with
// removeCallbacksAndMessages() or destroy the executor first.
class TaskExecutor {
 public:
  // Creates an executor owned by the returned pointer.
  static std::shared_ptr<TaskExecutor> create(
      std::function<void(std::unique_ptr<Message>)> const& handler,
      std::shared_ptr<DynamicThreadPool> pool);

  // `handler` receives messages sent to the executor; an empty `pool` means
  // that the executor runs its own worker (the only mode of this stand-in).
  TaskExecutor(std::function<void(std::unique_ptr<Message>)> const& handler,
               std::shared_ptr<DynamicThreadPool> pool);
  ~TaskExecutor();

  TaskExecutor(const TaskExecutor&) = delete;
  TaskExecutor& operator=(const TaskExecutor&) = delete;

  // Queues `task` to run after every task posted before it that is due.
  void post(std::function<void()> const& task);

  // Queues `task` to run once `delay` has passed; a delay of zero or less
  // means now. A delay too long for the clock's range waits as long as it can.
  void postDelayed(std::function<void()> const& task, std::chrono::milliseconds delay);

  // Drops every task not yet started. A running task is not interrupted.
  void removeCallbacksAndMessages();

 private:
  std::unique_ptr<scheduling::DelayedTaskQueue> queue_;
  std::function<void(std::unique_ptr<Message>)> handler_;
};

}  // namespace veranda
