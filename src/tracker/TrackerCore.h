// The state behind EntityReachabilityTracker: what it last reported per
// entity, and the judging and reporting of changes.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "guard/CallbackGate.h"
#include "reachabilityCache/EntityReachabilityTracker.h"
#include "reachabilityCache/ReachabilityCheckResult.h"
#include "reachabilityCache/ReachabilityCheckerGuard.h"
#include "reachabilityCache/TrackedEntityState.h"
#include "store/CacheCore.h"
#include "store/ChangeFeed.h"
#include "sync/Mutex.h"
#include "taskExecutor/TaskExecutor.h"

namespace veranda::reachabilityCache {

// Keeps a state per entity and, at each settle point, judges the entities
// that the store's change feed names, queueing one change per entity whose
// reachability differs. Entities named by a batch that is being applied keep
// their state until the batch's end. Changes are delivered by one thread at a
// time, in the order they were queued, outside the lock.
//
// Thread safety: every member may be called from any thread. Lock order: the
// core's mutex, then the store's or the change feed's.
//
// Lifetime: held by shared pointer by the tracker, by the guard (as observer)
// and, weakly, by the cache's listener, the change feed's subscription and
// the hold-down timers, so that a call under way keeps it alive. After
// close() every entry point returns at once.
class TrackerCore : public ReachabilityCheckerGuard::Observer,
                    public std::enable_shared_from_this<TrackerCore> {
 public:
  using Options = EntityReachabilityTracker::Options;

  TrackerCore(std::shared_ptr<CacheCore> store, Options options);
  ~TrackerCore() override;

  TrackerCore(const TrackerCore&) = delete;
  TrackerCore& operator=(const TrackerCore&) = delete;

  // Subscribes to the store's change feed. Call once, before anything can
  // reach the core.
  void subscribe() RC_EXCLUDES(mutex_);
  // Judges every entity the store holds and delivers their states: the
  // tracker's start.
  void judgeEverything() RC_EXCLUDES(mutex_);
  // Judges what changed since the last settle point and delivers it.
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
  TrackedEntityState state(const std::string& entityId) const RC_EXCLUDES(mutex_);
  std::vector<TrackedEntityState> states() const RC_EXCLUDES(mutex_);

  // True once the cache that owns the store has started its destruction.
  bool isCacheDestroyed() const { return cacheDestroyed_.load(std::memory_order_acquire); }

  // Refuses every later entry, waits for the ones under way on other threads,
  // cancels the hold-down timers and ends the feed's subscription.
  void close() RC_EXCLUDES(mutex_);

 private:
  using TimePoint = TrackedEntityState::TimePoint;
  // An entity to judge, with the cause to report if its reachability changed.
  using Judgement = std::pair<std::string, ReachabilityCause>;

  // What the tracker reported for one entity, and its hold-down.
  struct Record {
    EntityReachability reachability;
    ReachabilityCause cause;
    TimePoint since;
    std::optional<TimePoint> lastSeenReachable;
    uint64_t lossToken = 0;  // non-zero: a loss waits out the hold-down
    bool lossExpired = false;
  };

  // One change to deliver.
  struct Change {
    TrackedEntityState state;
    bool reachableFlipped;  // from or to REACHABLE: onChange hears it
  };

  // Takes what the feed recorded: entities of a batch under way wait in
  // deferred_, the others join `due`.
  void takeTouchesLocked(std::vector<Judgement>& due) RC_REQUIRES(mutex_);
  // Judges each entity once (the latest of its causes), in entity id order.
  void judgeLocked(std::vector<Judgement>& due) RC_REQUIRES(mutex_);
  void judgeOneLocked(const std::string& entityId, ReachabilityCause cause, TimePoint now)
      RC_REQUIRES(mutex_);
  void queueLocked(const std::string& entityId, const Record& record, bool reachableFlipped)
      RC_REQUIRES(mutex_);
  void startHoldDownLocked(const std::string& entityId, Record& record) RC_REQUIRES(mutex_);
  void onHoldDownEnded(const std::string& entityId, uint64_t token) RC_EXCLUDES(mutex_);
  void onCacheDestroyed() RC_EXCLUDES(mutex_);
  TimePoint now() const;
  TrackedEntityState stateOf(const std::string& entityId, const Record& record) const;
  // Delivers queued changes unless another thread already does.
  void deliver() RC_EXCLUDES(mutex_);
  // Calls the callbacks for one change; an exception is logged and dropped.
  void report(const Change& change) const;

  const std::shared_ptr<CacheCore> store_;
  const Options options_;
  const TimePoint started_;
  CallbackGate gate_;
  std::atomic<bool> cacheDestroyed_{false};
  mutable Mutex mutex_;
  std::unordered_map<std::string, Record> records_ RC_GUARDED_BY(mutex_);
  // Entities named by batches being applied, with the number of such batches.
  std::unordered_map<std::string, std::size_t> applying_ RC_GUARDED_BY(mutex_);
  // Touched entities of a batch under way, judged at its end.
  std::unordered_map<std::string, ReachabilityCause> deferred_ RC_GUARDED_BY(mutex_);
  std::deque<Change> undelivered_ RC_GUARDED_BY(mutex_);
  bool delivering_ RC_GUARDED_BY(mutex_) = false;
  uint64_t lastToken_ RC_GUARDED_BY(mutex_) = 0;
  std::optional<ChangeFeed::SubscriberId> subscription_ RC_GUARDED_BY(mutex_);
  // Runs the hold-down timers; null without a hold-down. Declared last so that
  // it is destroyed first: its destructor waits for a running timer.
  const std::shared_ptr<TaskExecutor> timer_;
};

}  // namespace veranda::reachabilityCache
