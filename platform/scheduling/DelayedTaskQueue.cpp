#include "scheduling/DelayedTaskQueue.h"

#include <algorithm>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <string>
#include <utility>

namespace veranda::scheduling {
namespace {

// What the calling thread runs now, when it is a queue's worker inside a task.
struct RunningTask {
  const void* worker = nullptr;
  unsigned chain = 0;  // tasks before it in a row that posted one another without delay
};
thread_local RunningTask tRunning;

// A waiting worker reads the clock again at least this often.
constexpr std::chrono::hours kLongestWait{1};

}  // namespace

// The tasks and the worker thread's loop, shared by the queue and its thread
// so that a thread left to finish a task on its own still has them.
class DelayedTaskQueue::Worker final : public TimeSource::Queue {
 public:
  explicit Worker(TimeSource& time) : time_(time) {}

  bool add(Task task, TimePoint due) {
    if (!task) {
      return false;
    }
    const unsigned chain = chainOf(due);
    std::lock_guard<std::mutex> lock(mutex_);
    if (stopping_) {
      return false;
    }
    tasks_.emplace(Key{due, nextSequence_++}, Entry{std::move(task), chain});
    refreshLocked();
    wake_.notify_one();
    return true;
  }

  std::vector<Task> takePending() {
    Tasks dropped;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      dropped.swap(tasks_);
      refreshLocked();
    }
    std::vector<Task> tasks;
    tasks.reserve(dropped.size());
    for (auto& entry : dropped) {
      tasks.push_back(std::move(entry.second.task));
    }
    return tasks;
  }

  // Refuses later tasks and lets the thread exit after a running one, which
  // it waits for when `wait`. The dropped tasks are destroyed first, outside
  // the lock: the running task may be waiting for that.
  void stop(bool wait) {
    Tasks dropped;
    std::unique_lock<std::mutex> lock(mutex_);
    stopping_ = true;
    dropped.swap(tasks_);
    refreshLocked();
    wake_.notify_one();
    lock.unlock();
    dropped.clear();
    if (wait) {
      lock.lock();
      finished_.wait(lock, [this] { return !running_; });
    }
  }

  // The thread's body: runs each task once due, until stopped.
  void run() {
    std::unique_lock<std::mutex> lock(mutex_);
    while (!stopping_) {
      if (tasks_.empty()) {
        wake_.wait(lock);
        continue;
      }
      const TimePoint due = tasks_.begin()->first.first;
      const TimePoint now = time_.now();
      if (due > now) {
        if (time_.isVirtual()) {
          wake_.wait(lock);  // until time moves
        } else {
          wake_.wait_for(lock, std::min<std::chrono::nanoseconds>(due - now, kLongestWait));
        }
        continue;
      }
      Entry entry = std::move(tasks_.begin()->second);
      tasks_.erase(tasks_.begin());
      running_ = true;
      refreshLocked();
      lock.unlock();
      runTask(entry);
      lock.lock();
      running_ = false;
      refreshLocked();
      finished_.notify_all();
    }
  }

  void timeChanged() override {
    std::lock_guard<std::mutex> lock(mutex_);
    refreshLocked();
    wake_.notify_one();
  }

  bool nextDue(TimePoint& due) const override {
    std::lock_guard<std::mutex> lock(mutex_);
    if (tasks_.empty()) {
      return false;
    }
    due = tasks_.begin()->first.first;
    return true;
  }

 private:
  using Key = std::pair<TimePoint, uint64_t>;  // due time, posting order
  struct Entry {
    Task task;
    unsigned chain;
  };
  using Tasks = std::map<Key, Entry>;

  // How long the chain of tasks posted without delay becomes with one posted
  // for `due` from here: only a task on a worker, due at once in virtual
  // time, extends it.
  unsigned chainOf(TimePoint due) const {
    if (tRunning.worker == nullptr || !time_.isVirtual() || due > time_.now()) {
      return 0;
    }
    const unsigned chain = tRunning.chain + 1;
    if (chain >= kLongestChain) {
      TimeSource::fail(std::to_string(kLongestChain) +
                       " tasks in a row were posted without delay at the same virtual time; a "
                       "task that re-posts itself with no delay keeps time from ever settling");
    }
    return chain;
  }

  void runTask(Entry& entry) {
    tRunning = {this, entry.chain};
    entry.task();
    entry.task = nullptr;  // what it holds goes while it still counts as running
    tRunning = {};
  }

  // Tells the time source whether this queue is busy in virtual time: a task
  // runs or one is due.
  void refreshLocked() {
    const bool busy = time_.isVirtual() &&
                      (running_ || (!tasks_.empty() && tasks_.begin()->first.first <= time_.now()));
    if (busy != busyReported_) {
      busyReported_ = busy;
      time_.setBusy(busy);
    }
  }

  TimeSource& time_;
  mutable std::mutex mutex_;
  std::condition_variable wake_;      // the worker waits for a task or for time to move
  std::condition_variable finished_;  // stop() waits for a running task
  Tasks tasks_;
  uint64_t nextSequence_ = 0;
  bool stopping_ = false;
  bool running_ = false;
  bool busyReported_ = false;
};

DelayedTaskQueue::DelayedTaskQueue() : worker_(std::make_shared<Worker>(TimeSource::instance())) {
  TimeSource::instance().attach(worker_.get());
  thread_ = std::thread([worker = worker_] { worker->run(); });
  workerId_ = thread_.get_id();
}

DelayedTaskQueue::~DelayedTaskQueue() { stop(); }

bool DelayedTaskQueue::post(Task task, TimePoint due) { return worker_->add(std::move(task), due); }

std::vector<DelayedTaskQueue::Task> DelayedTaskQueue::takePending() {
  return worker_->takePending();
}

void DelayedTaskQueue::stop() {
  worker_->stop(!onWorker());
  TimeSource::instance().detach(worker_.get());
  std::thread thread;
  {
    std::lock_guard<std::mutex> lock(threadMutex_);
    thread.swap(thread_);
  }
  if (!thread.joinable()) {
    return;
  }
  if (thread.get_id() == std::this_thread::get_id()) {
    thread.detach();
  } else {
    thread.join();
  }
}

bool DelayedTaskQueue::onWorker() const { return std::this_thread::get_id() == workerId_; }

bool DelayedTaskQueue::inTask() { return tRunning.worker != nullptr; }

}  // namespace veranda::scheduling
