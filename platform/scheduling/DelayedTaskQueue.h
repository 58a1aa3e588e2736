// An ordered queue of delayed tasks with a worker thread of its own: what the
// task executor and the simulated appliance driver both run their work on.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "scheduling/TimeSource.h"
#include "sync/Mutex.h"

namespace veranda::scheduling {

// Runs tasks one at a time on its worker thread, each once due by the
// process's TimeSource: earlier due times first, equal due times in posting
// order.
//
// Thread safety: every member may be called from any thread, the worker
// included.
//
// Lifetime: stop() (also run by the destructor) drops every task not yet
// started and waits for a running one to return, unless it runs on the worker
// itself; then the worker finishes that task and exits on its own.
class DelayedTaskQueue {
 public:
  using Task = std::function<void()>;

  // Starts the worker.
  DelayedTaskQueue();
  ~DelayedTaskQueue();

  DelayedTaskQueue(const DelayedTaskQueue&) = delete;
  DelayedTaskQueue& operator=(const DelayedTaskQueue&) = delete;

  // Queues `task` to run once `delay` has passed by the TimeSource (at once
  // for zero or less; a delay beyond the clock's range waits as long as it
  // can). False, and the task is dropped, for an empty task or after stop().
  // In virtual time, ends the process with a message when tasks that post one
  // another with no delay make a chain of LONGEST_CHAIN: time could never
  // settle.
  bool post(Task task, std::chrono::milliseconds delay);
  // Queues `task` ahead of every task posted with post(), behind the urgent
  // ones posted before it. Otherwise as post().
  bool postUrgent(Task task);

  // Drops every task not yet started and hands them over, so that the caller
  // destroys them outside its own locks. A running task is not interrupted.
  std::vector<Task> takePending();

  // Refuses later tasks, drops the pending ones and waits for a running one
  // unless called on the worker. Final; safe to call repeatedly and from
  // several threads at once.
  void stop();

  // True on this queue's worker thread.
  bool onWorker() const;
  // True on the worker thread of any queue while it runs a task.
  static bool inTask();
  // On the worker thread of a queue while it runs a task: a token of that
  // queue that expires once the queue is stopped (destroyed). Elsewhere an
  // empty token. Tells whoever a task called whether its caller is gone.
  static std::weak_ptr<const void> runningTaskQueue();

  static constexpr unsigned LONGEST_CHAIN = 10000;

 private:
  class Worker;
  const std::shared_ptr<Worker> worker_;  // shared with the worker thread
  std::thread::id workerId_;              // set by the constructor, then only read
  reachabilityCache::Mutex threadMutex_;
  std::thread thread_ RC_GUARDED_BY(threadMutex_);  // empty once stopped
};

}  // namespace veranda::scheduling
