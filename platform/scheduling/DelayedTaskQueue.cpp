#include "scheduling/DelayedTaskQueue.h"

#include <algorithm>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <string>
#include <utility>

namespace veranda::scheduling {
namespace {

using reachabilityCache::Mutex;
using reachabilityCache::MutexLock;
using reachabilityCache::RelockableMutexLock;
using TimePoint = TimeSource::TimePoint;

// What the calling thread runs now, when it is a queue's worker inside a task.
struct RunningTask {
  const void* worker = nullptr;
  unsigned chain = 0;              // tasks before it in a row that posted one another without delay
  std::weak_ptr<const void> life;  // the queue's, expired once it is stopped
};
thread_local RunningTask tRunning;

// A waiting worker reads the clock again at least this often.
constexpr std::chrono::hours LONGEST_WAIT{1};

}  // namespace

// The tasks and the worker thread's loop, shared by the queue and its thread
// so that a thread left to finish a task on its own still has them.
class DelayedTaskQueue::Worker final : public TimeSource::Queue {
 public:
  explicit Worker(TimeSource& time) : time_(time), life_(std::make_shared<int>(0)) {}

  // Takes the clock's mode that attaching to it returned, unless the clock
  // has told of a later change meanwhile.
  void attached(bool virtualTime) {
    MutexLock lock(mutex_);
    if (!toldOfTime_) {
      virtual_ = virtualTime;
    }
  }

  // Urgent tasks are due at the earliest time there is.
  bool add(Task task, std::chrono::milliseconds delay, bool urgent) {
    if (!task) {
      return false;
    }
    MutexLock lock(mutex_);
    if (stopping_) {
      return false;
    }
    const TimePoint now = nowLocked();
    const TimePoint due =
        urgent ? TimePoint::min() : TimeSource::plus(now, std::max(delay, decltype(delay)::zero()));
    const unsigned chain = chainLocked(due <= now);
    tasks_.emplace(Key{due, nextSequence_++}, Entry{std::move(task), chain});
    refreshLocked();
    wake_.notify_one();
    return true;
  }

  std::vector<Task> takePending() {
    Tasks dropped;
    {
      MutexLock lock(mutex_);
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
    {
      MutexLock lock(mutex_);
      stopping_ = true;
      life_.reset();
      dropped.swap(tasks_);
      refreshLocked();
      wake_.notify_one();
    }
    dropped.clear();
    if (wait) {
      MutexLock lock(mutex_);
      finished_.wait(mutex_, [this]() RC_REQUIRES(mutex_) { return !running_; });
    }
  }

  // The thread's body: runs each task once due, until stopped.
  void run() {
    RelockableMutexLock lock(mutex_);
    while (!stopping_) {
      if (tasks_.empty()) {
        wake_.wait(lock);
        continue;
      }
      const TimePoint due = tasks_.begin()->first.first;
      const TimePoint now = nowLocked();
      if (due > now) {
        if (virtual_) {
          wake_.wait(lock);  // until time moves
        } else {
          wake_.wait_for(lock, std::min<std::chrono::nanoseconds>(due - now, LONGEST_WAIT));
        }
        continue;
      }
      Entry entry = std::move(tasks_.begin()->second);
      tasks_.erase(tasks_.begin());
      running_ = true;
      refreshLocked();
      if (virtual_) {
        time_.countTask();
      }
      std::weak_ptr<const void> life = life_;
      lock.unlock();
      runTask(entry, std::move(life));
      lock.lock();
      running_ = false;
      refreshLocked();
      finished_.notify_all();
    }
  }

  // The worker is woken only when it has to look again: a new mode, moved
  // due times, or a task that the new time makes due. Time moving past a
  // queue with nothing due costs that queue nothing.
  void timeChanged(bool virtualTime, std::chrono::nanoseconds shift) override {
    MutexLock lock(mutex_);
    const bool wake = virtual_ != virtualTime || shift != std::chrono::nanoseconds::zero() ||
                      (!tasks_.empty() && tasks_.begin()->first.first <= nowIn(virtualTime));
    virtual_ = virtualTime;
    toldOfTime_ = true;
    if (shift != std::chrono::nanoseconds::zero()) {
      Tasks shifted;
      for (auto& entry : tasks_) {
        const Key& key = entry.first;
        shifted.emplace(Key{TimeSource::plus(key.first, shift), key.second},
                        std::move(entry.second));
      }
      tasks_.swap(shifted);
    }
    refreshLocked();
    if (wake) {
      wake_.notify_one();
    }
  }

  bool nextDue(TimePoint& due) const override {
    MutexLock lock(mutex_);
    if (tasks_.empty()) {
      return false;
    }
    due = tasks_.begin()->first.first;
    return true;
  }

  std::size_t pendingCount() const override {
    MutexLock lock(mutex_);
    return tasks_.size();
  }

 private:
  using Key = std::pair<TimePoint, uint64_t>;  // due time, posting order
  struct Entry {
    Task task;
    unsigned chain;
  };
  using Tasks = std::map<Key, Entry>;

  TimePoint nowLocked() const RC_REQUIRES(mutex_) { return nowIn(virtual_); }
  TimePoint nowIn(bool virtualTime) const {
    return virtualTime ? time_.virtualNow() : std::chrono::steady_clock::now();
  }

  // The length of the chain of tasks posted without delay that a task posted
  // from here makes: only a task posted from a worker's task, due at once in
  // virtual time, extends it.
  unsigned chainLocked(bool dueAtOnce) const RC_REQUIRES(mutex_) {
    if (tRunning.worker == nullptr || !virtual_ || !dueAtOnce) {
      return 0;
    }
    const unsigned chain = tRunning.chain + 1;
    if (chain >= LONGEST_CHAIN) {
      TimeSource::fail(std::to_string(LONGEST_CHAIN) +
                       " tasks in a row were posted with no delay at the same virtual time: a "
                       "task that keeps re-posting itself keeps time from ever settling");
    }
    return chain;
  }

  void runTask(Entry& entry, std::weak_ptr<const void> life) {
    tRunning = {this, entry.chain, std::move(life)};
    entry.task();
    entry.task = nullptr;  // what it holds goes while it still counts as running
    tRunning = {};
  }

  // Tells the time source whether this queue is busy in virtual time: a task
  // runs or one is due.
  void refreshLocked() RC_REQUIRES(mutex_) {
    const bool busy =
        virtual_ && (running_ || (!tasks_.empty() && tasks_.begin()->first.first <= nowLocked()));
    if (busy != busyReported_) {
      busyReported_ = busy;
      time_.setBusy(busy);
    }
  }

  TimeSource& time_;
  // Taken after the time source's queuesMutex_ and any mutex that a caller
  // holds while it posts, before the time source's busyMutex_.
  mutable Mutex mutex_;
  std::condition_variable_any wake_;      // the worker waits for a task or for time to move
  std::condition_variable_any finished_;  // stop() waits for a running task
  Tasks tasks_ RC_GUARDED_BY(mutex_);
  uint64_t nextSequence_ RC_GUARDED_BY(mutex_) = 0;
  bool virtual_ RC_GUARDED_BY(mutex_) = false;  // the clock's mode as this queue last heard of it
  bool toldOfTime_ RC_GUARDED_BY(mutex_) = false;
  bool stopping_ RC_GUARDED_BY(mutex_) = false;
  bool running_ RC_GUARDED_BY(mutex_) = false;
  bool busyReported_ RC_GUARDED_BY(mutex_) = false;
  std::shared_ptr<const int> life_ RC_GUARDED_BY(mutex_);  // reset by stop()
};

DelayedTaskQueue::DelayedTaskQueue() : worker_(std::make_shared<Worker>(TimeSource::instance())) {
  worker_->attached(TimeSource::instance().attach(worker_.get()));
  thread_ = std::thread([worker = worker_] { worker->run(); });
  workerId_ = thread_.get_id();
}

DelayedTaskQueue::~DelayedTaskQueue() { stop(); }

bool DelayedTaskQueue::post(Task task, std::chrono::milliseconds delay) {
  return worker_->add(std::move(task), delay, false);
}

bool DelayedTaskQueue::postUrgent(Task task) {
  return worker_->add(std::move(task), std::chrono::milliseconds::zero(), true);
}

std::vector<DelayedTaskQueue::Task> DelayedTaskQueue::takePending() {
  return worker_->takePending();
}

void DelayedTaskQueue::stop() {
  worker_->stop(!onWorker());
  TimeSource::instance().detach(worker_.get());
  std::thread thread;
  {
    MutexLock lock(threadMutex_);
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

std::weak_ptr<const void> DelayedTaskQueue::runningTaskQueue() { return tRunning.life; }

}  // namespace veranda::scheduling
