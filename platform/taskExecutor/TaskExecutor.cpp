#include "taskExecutor/TaskExecutor.h"

#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <thread>
#include <utility>

namespace veranda {

// The queue and the worker thread. The executor and the running thread both
// own it, so that a thread left to finish on its own after the executor is
// gone still has its queue.
class TaskExecutor::Worker {
 public:
  using Clock = std::chrono::steady_clock;
  using Key = std::pair<Clock::time_point, uint64_t>;  // due time, posting order
  using Queue = std::map<Key, std::function<void()>>;

  // Starts the thread; `self` is this worker, shared with the thread.
  void start(const std::shared_ptr<Worker>& self) {
    thread_ = std::thread([self] { self->run(); });
  }

  void add(const std::function<void()>& task, std::chrono::milliseconds delay) {
    if (!task) {
      return;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    if (stopping_) {
      return;
    }
    Clock::time_point due = Clock::now();
    if (delay > std::chrono::milliseconds::zero()) {
      due += delay;
    }
    queue_.emplace(Key{due, nextSequence_++}, task);
    wake_.notify_one();
  }

  // Returns the dropped tasks so that the caller destroys them outside the
  // lock (destroying a task may release the last reference to an executor).
  Queue takePending() {
    std::lock_guard<std::mutex> lock(mutex_);
    Queue dropped;
    dropped.swap(queue_);
    return dropped;
  }

  // Drops every pending task and lets the thread exit after a running task;
  // waits for that unless called on the thread itself.
  void stop() {
    Queue dropped;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stopping_ = true;
      dropped.swap(queue_);
      wake_.notify_one();
    }
    dropped.clear();
    if (thread_.get_id() == std::this_thread::get_id()) {
      thread_.detach();
    } else {
      thread_.join();
    }
  }

 private:
  void run() {
    std::unique_lock<std::mutex> lock(mutex_);
    while (!stopping_) {
      if (queue_.empty()) {
        wake_.wait(lock);
        continue;
      }
      const Clock::time_point due = queue_.begin()->first.first;
      if (due > Clock::now()) {
        wake_.wait_until(lock, due);
        continue;
      }
      std::function<void()> task = std::move(queue_.begin()->second);
      queue_.erase(queue_.begin());
      lock.unlock();
      task();
      task = nullptr;
      lock.lock();
    }
  }

  std::mutex mutex_;
  std::condition_variable wake_;
  Queue queue_;
  uint64_t nextSequence_ = 0;
  bool stopping_ = false;
  std::thread thread_;  // touched only by the executor's constructor and destructor
};

std::shared_ptr<TaskExecutor> TaskExecutor::create(
    std::function<void(std::unique_ptr<Message>)> const& handler,
    std::shared_ptr<DynamicThreadPool> pool) {
  // The executor library's own form: a plain new wrapped with the default deleter.
  return std::shared_ptr<TaskExecutor>(  // NOLINT(modernize-make-shared)
      new TaskExecutor(handler, std::move(pool)));
}

// The signature is the executor library's.
// NOLINTNEXTLINE(modernize-pass-by-value)
TaskExecutor::TaskExecutor(std::function<void(std::unique_ptr<Message>)> const& handler,
                           // NOLINTNEXTLINE(performance-unnecessary-value-param)
                           std::shared_ptr<DynamicThreadPool> /*pool*/)
    : worker_(std::make_shared<Worker>()), handler_(handler) {
  worker_->start(worker_);
}

TaskExecutor::~TaskExecutor() { worker_->stop(); }

void TaskExecutor::post(std::function<void()> const& task) {
  worker_->add(task, std::chrono::milliseconds::zero());
}

void TaskExecutor::postDelayed(std::function<void()> const& task, std::chrono::milliseconds delay) {
  worker_->add(task, delay);
}

void TaskExecutor::removeCallbacksAndMessages() { worker_->takePending(); }

}  // namespace veranda
