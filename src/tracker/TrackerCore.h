// The state behind EntityReachabilityTracker: which entities it last reported
// reachable, and the judging and reporting of changes.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "guard/CallbackGate.h"
#include "reachabilityCache/EntityReachabilityTracker.h"
#include "reachabilityCache/ReachabilityCheckResult.h"
#include "reachabilityCache/ReachabilityCheckerGuard.h"
#include "store/CacheCore.h"
#include "sync/Mutex.h"
#include "taskExecutor/TaskExecutor.h"

namespace veranda::reachabilityCache {

// Keeps a view of which entities are reachable and brings it up to the store
// at each settle point, queueing one change per entity whose answer differs.
// Entities named by a batch that is being applied keep their view until the
// batch's end. Changes are delivered by one thread at a time, in the order
// they were queued, outside the lock.
//
// Thread safety: every member may be called from any thread. Lock order: the
// core's mutex, then the store's.
//
// Lifetime: held by shared pointer by the tracker, by the guard (as observer)
// and, weakly, by the cache's listener and the hold-down timers, so that a
// call under way keeps it alive. After close() every entry point returns at
// once.
class TrackerCore : public ReachabilityCheckerGuard::Observer,
                    public std::enable_shared_from_this<TrackerCore> {
 public:
  using ChangeCallback = EntityReachabilityTracker::ChangeCallback;

  TrackerCore(std::shared_ptr<CacheCore> store, ChangeCallback callback,
              std::chrono::milliseconds unreachableHoldDown);

  TrackerCore(const TrackerCore&) = delete;
  TrackerCore& operator=(const TrackerCore&) = delete;

  // Brings the view up to the store and delivers what changed.
  void settle() RC_EXCLUDES(mutex_);
  // A listener notification: a settle point unless it belongs to a batch.
  void onNotification(const std::string& entityId) RC_EXCLUDES(mutex_);

  void onCheckStarting() override RC_EXCLUDES(mutex_);
  void onResultsArriving(const std::vector<ReachabilityCheckResult>& results) override
      RC_EXCLUDES(mutex_);
  void onResultsApplied(const std::vector<ReachabilityCheckResult>& results) override
      RC_EXCLUDES(mutex_);

  bool reportedReachable(const std::string& entityId) const RC_EXCLUDES(mutex_);
  std::vector<std::string> reportedReachableEntities() const RC_EXCLUDES(mutex_);

  // Refuses every later entry, waits for the ones under way on other threads
  // and cancels the hold-down timers.
  void close();

 private:
  // An entity shown reachable that the store no longer finds reachable,
  // waiting out the hold-down.
  struct PendingLoss {
    uint64_t token;
    bool expired;
  };

  void judgeAll() RC_REQUIRES(mutex_);
  void judge(const std::string& entityId, bool reachableNow) RC_REQUIRES(mutex_);
  void startHoldDown(const std::string& entityId) RC_REQUIRES(mutex_);
  void onHoldDownEnded(const std::string& entityId, uint64_t token) RC_EXCLUDES(mutex_);
  // Delivers queued changes unless another thread already does.
  void deliver() RC_EXCLUDES(mutex_);

  const std::shared_ptr<CacheCore> store_;
  const ChangeCallback callback_;
  const std::chrono::milliseconds holdDown_;
  CallbackGate gate_;
  mutable Mutex mutex_;
  std::unordered_set<std::string> shown_ RC_GUARDED_BY(mutex_);
  std::unordered_map<std::string, PendingLoss> pendingLosses_ RC_GUARDED_BY(mutex_);
  // Entities named by batches being applied, with the number of such batches.
  std::unordered_map<std::string, std::size_t> applying_ RC_GUARDED_BY(mutex_);
  std::deque<std::pair<std::string, bool>> undelivered_ RC_GUARDED_BY(mutex_);
  bool delivering_ RC_GUARDED_BY(mutex_) = false;
  uint64_t lastToken_ RC_GUARDED_BY(mutex_) = 0;
  // Runs the hold-down timers; null without a hold-down. Declared last so that
  // it is destroyed first: its destructor waits for a running timer.
  const std::shared_ptr<TaskExecutor> timer_;
};

}  // namespace veranda::reachabilityCache
