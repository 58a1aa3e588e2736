#include "tracker/TrackerCore.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "diagnostics/ComponentLog.h"
#include "diagnostics/LogBuilder.h"
#include "taskExecutor/Message.h"

namespace veranda::reachabilityCache {
namespace {

using commonLog::LogBuilder;

std::shared_ptr<TaskExecutor> makeTimer(std::chrono::milliseconds holdDown) {
  if (holdDown <= std::chrono::milliseconds::zero()) {
    return nullptr;
  }
  return TaskExecutor::create([](std::unique_ptr<Message> /*unused*/) {}, nullptr);
}

TrackerCore::Options withDefaultClock(TrackerCore::Options options) {
  if (!options.clock) {
    options.clock = [] { return std::chrono::system_clock::now(); };
  }
  return options;
}

ReachabilityCause causeOf(ChangeOrigin origin) {
  switch (origin) {
    case ChangeOrigin::HOST:
      return ReachabilityCause::HOST_CHANGE;
    case ChangeOrigin::PERIODIC_CHECK:
      return ReachabilityCause::CYCLE_RESULT;
    case ChangeOrigin::MANUAL_CHECK:
      return ReachabilityCause::MANUAL_CHECK_RESULT;
    case ChangeOrigin::CONNECTIVITY_EVENT:
      return ReachabilityCause::CONNECTIVITY_EVENT;
    case ChangeOrigin::SWEEP:
      return ReachabilityCause::DROPPED_BY_PROVIDER;
  }
  return ReachabilityCause::HOST_CHANGE;
}

// Runs one host callback; what it throws is logged and dropped, so that the
// tracker goes on delivering.
template <typename Call>
void runContained(const char* callback, const std::string& entityId, const Call& call) {
  const char* what = nullptr;
  std::string message;
  try {
    call();
    return;
  } catch (const std::exception& exception) {
    message = exception.what();
    what = message.c_str();
  } catch (...) {
    what = logSchema::value::NOT_A_STD_EXCEPTION;
  }
  logTracker(LogPriority::ERROR, LogBuilder(logSchema::label::DELIVER, nullptr)
                                     .d(logSchema::key::EVENT, logSchema::event::CALLBACK_THREW)
                                     .d(logSchema::key::CALLBACK, callback)
                                     .d(logSchema::key::ENTITY_ID, entityId.c_str())
                                     .d(logSchema::key::WHAT, what));
}

}  // namespace

TrackerCore::TrackerCore(std::shared_ptr<CacheCore> store, Options options)
    : store_(std::move(store)),
      options_(withDefaultClock(std::move(options))),
      started_(options_.clock()),
      timer_(makeTimer(options_.unreachableHoldDown)) {}

TrackerCore::~TrackerCore() { close(); }

void TrackerCore::subscribe() {
  const ChangeFeed::SubscriberId id = store_->changeFeed().subscribe([core = weak_from_this()] {
    if (const auto alive = core.lock()) {
      alive->onCacheDestroyed();
    }
  });
  MutexLock lock(mutex_);
  subscription_ = id;
}

void TrackerCore::judgeEverything() {
  const CallbackGate::Pass pass(gate_);
  if (!pass) {
    return;
  }
  {
    std::vector<Judgement> due;
    for (const auto& entity : store_->getReachableEndpointsMap()) {
      due.emplace_back(entity.first, ReachabilityCause::TRACKING_STARTED);
    }
    MutexLock lock(mutex_);
    takeTouchesLocked(due);
    judgeLocked(due);
  }
  deliver();
}

void TrackerCore::settle() {
  const CallbackGate::Pass pass(gate_);
  if (!pass) {
    return;
  }
  {
    std::vector<Judgement> due;
    MutexLock lock(mutex_);
    takeTouchesLocked(due);
    judgeLocked(due);
  }
  deliver();
}

void TrackerCore::onNotification(const std::string& entityId) {
  // A copy: judging calls the store, which reuses the buffer.
  const std::string id = CacheCore::normalizeEntityId(entityId);
  const CallbackGate::Pass pass(gate_);
  if (!pass) {
    return;
  }
  {
    std::vector<Judgement> due;
    MutexLock lock(mutex_);
    if (applying_.count(id) != 0) {
      return;  // the batch's end settles it
    }
    takeTouchesLocked(due);
    judgeLocked(due);
  }
  deliver();
}

void TrackerCore::onCheckStarting() { settle(); }

void TrackerCore::onResultsArriving(const std::vector<ReachabilityCheckResult>& results) {
  const CallbackGate::Pass pass(gate_);
  if (!pass) {
    return;
  }
  MutexLock lock(mutex_);
  for (const ReachabilityCheckResult& result : results) {
    ++applying_[CacheCore::normalizeEntityId(result.entityId)];
  }
}

void TrackerCore::onResultsApplied(const std::vector<ReachabilityCheckResult>& results) {
  const CallbackGate::Pass pass(gate_);
  if (!pass) {
    return;
  }
  {
    std::vector<Judgement> due;
    MutexLock lock(mutex_);
    for (const ReachabilityCheckResult& result : results) {
      const auto entity = applying_.find(CacheCore::normalizeEntityId(result.entityId));
      if (entity == applying_.end() || --entity->second != 0) {
        continue;
      }
      const auto waiting = deferred_.find(entity->first);
      if (waiting != deferred_.end()) {
        due.emplace_back(waiting->first, waiting->second);
        deferred_.erase(waiting);
      }
      applying_.erase(entity);
    }
    takeTouchesLocked(due);
    judgeLocked(due);
  }
  deliver();
}

bool TrackerCore::reportedReachable(const std::string& entityId) const {
  const std::string& id = CacheCore::normalizeEntityId(entityId);
  MutexLock lock(mutex_);
  const auto record = records_.find(id);
  return record != records_.end() && record->second.reachability == EntityReachability::REACHABLE;
}

std::vector<std::string> TrackerCore::reportedReachableEntities() const {
  std::vector<std::string> entities;
  {
    MutexLock lock(mutex_);
    for (const auto& [entityId, record] : records_) {
      if (record.reachability == EntityReachability::REACHABLE) {
        entities.push_back(entityId);
      }
    }
  }
  std::sort(entities.begin(), entities.end());
  return entities;
}

TrackedEntityState TrackerCore::state(const std::string& entityId) const {
  const std::string& id = CacheCore::normalizeEntityId(entityId);
  MutexLock lock(mutex_);
  const auto record = records_.find(id);
  if (record == records_.end()) {
    return {id, EntityReachability::UNKNOWN, ReachabilityCause::NONE, started_, std::nullopt};
  }
  return stateOf(id, record->second);
}

std::vector<TrackedEntityState> TrackerCore::states() const {
  std::vector<TrackedEntityState> all;
  {
    MutexLock lock(mutex_);
    all.reserve(records_.size());
    for (const auto& [entityId, record] : records_) {
      all.push_back(stateOf(entityId, record));
    }
  }
  std::sort(all.begin(), all.end(),
            [](const TrackedEntityState& left, const TrackedEntityState& right) {
              return left.entityId < right.entityId;
            });
  return all;
}

void TrackerCore::close() {
  gate_.close();
  if (timer_ != nullptr) {
    timer_->removeCallbacksAndMessages();
  }
  std::optional<ChangeFeed::SubscriberId> subscription;
  {
    MutexLock lock(mutex_);
    subscription.swap(subscription_);
  }
  if (subscription) {
    store_->changeFeed().unsubscribe(*subscription);
  }
}

void TrackerCore::takeTouchesLocked(std::vector<Judgement>& due) {
  if (!subscription_) {
    return;
  }
  for (auto& [entityId, origin] : store_->changeFeed().take(*subscription_)) {
    if (applying_.count(entityId) != 0) {
      deferred_.insert_or_assign(entityId, causeOf(origin));
    } else {
      due.emplace_back(entityId, causeOf(origin));
    }
  }
}

void TrackerCore::judgeLocked(std::vector<Judgement>& due) {
  if (due.empty()) {
    return;
  }
  // Stable: of an entity's causes, the latest added comes last and counts.
  std::stable_sort(due.begin(), due.end(), [](const Judgement& left, const Judgement& right) {
    return left.first < right.first;
  });
  const TimePoint time = now();
  for (std::size_t i = 0; i < due.size(); ++i) {
    if (i + 1 < due.size() && due[i + 1].first == due[i].first) {
      continue;
    }
    judgeOneLocked(due[i].first, due[i].second, time);
  }
}

void TrackerCore::judgeOneLocked(const std::string& entityId, ReachabilityCause cause,
                                 TimePoint now) {
  const bool reachableNow = store_->isEntityReachableUnlogged(entityId);
  const auto found = records_.find(entityId);
  if (found == records_.end()) {
    Record& record = records_[entityId];
    record.reachability =
        reachableNow ? EntityReachability::REACHABLE : EntityReachability::UNREACHABLE;
    record.cause = cause;
    record.since = now;
    if (reachableNow) {
      record.lastSeenReachable = now;
    }
    queueLocked(entityId, record, reachableNow);
    return;
  }
  Record& record = found->second;
  if (reachableNow) {
    record.lastSeenReachable = now;
    record.lossToken = 0;
    record.lossExpired = false;
    if (record.reachability != EntityReachability::REACHABLE) {
      record.reachability = EntityReachability::REACHABLE;
      record.cause = cause;
      record.since = now;
      queueLocked(entityId, record, true);
    }
    return;
  }
  if (record.reachability != EntityReachability::REACHABLE) {
    return;
  }
  if (timer_ != nullptr && !record.lossExpired) {
    if (record.lossToken == 0) {
      startHoldDownLocked(entityId, record);
    }
    return;
  }
  record.reachability = EntityReachability::UNREACHABLE;
  record.cause = record.lossExpired ? ReachabilityCause::HOLD_DOWN_ELAPSED : cause;
  record.since = now;
  record.lossToken = 0;
  record.lossExpired = false;
  queueLocked(entityId, record, true);
}

void TrackerCore::queueLocked(const std::string& entityId, const Record& record,
                              bool reachableFlipped) {
  undelivered_.push_back({stateOf(entityId, record), reachableFlipped});
}

void TrackerCore::startHoldDownLocked(const std::string& entityId, Record& record) {
  const uint64_t token = ++lastToken_;
  record.lossToken = token;
  timer_->postDelayed(
      [core = weak_from_this(), entityId, token] {
        if (const auto alive = core.lock()) {
          alive->onHoldDownEnded(entityId, token);
        }
      },
      options_.unreachableHoldDown);
}

void TrackerCore::onHoldDownEnded(const std::string& entityId, uint64_t token) {
  const CallbackGate::Pass pass(gate_);
  if (!pass) {
    return;
  }
  {
    std::vector<Judgement> due;
    MutexLock lock(mutex_);
    // A settle point like any other; what it finds may bring the entity back.
    takeTouchesLocked(due);
    judgeLocked(due);
    const auto record = records_.find(entityId);
    if (record != records_.end() && record->second.lossToken == token) {
      record->second.lossExpired = true;
      if (applying_.count(entityId) != 0) {
        deferred_.insert_or_assign(entityId, ReachabilityCause::HOLD_DOWN_ELAPSED);
      } else {
        judgeOneLocked(entityId, ReachabilityCause::HOLD_DOWN_ELAPSED, now());
      }
    }
  }
  deliver();
}

void TrackerCore::onCacheDestroyed() {
  cacheDestroyed_.store(true, std::memory_order_release);
  close();
}

TrackerCore::TimePoint TrackerCore::now() const { return options_.clock(); }

TrackedEntityState TrackerCore::stateOf(const std::string& entityId, const Record& record) const {
  return {entityId, record.reachability, record.cause, record.since, record.lastSeenReachable};
}

void TrackerCore::deliver() {
  {
    MutexLock lock(mutex_);
    if (delivering_) {
      return;  // the delivering thread takes these too
    }
    delivering_ = true;
  }
  for (;;) {
    Change change;
    {
      MutexLock lock(mutex_);
      if (undelivered_.empty() || gate_.isClosed()) {
        delivering_ = false;
        return;
      }
      change = std::move(undelivered_.front());
      undelivered_.pop_front();
    }
    report(change);
  }
}

void TrackerCore::report(const Change& change) const {
  const TrackedEntityState& state = change.state;
  if (change.reachableFlipped && options_.onChange) {
    runContained(logSchema::value::ON_CHANGE, state.entityId, [&] {
      options_.onChange(state.entityId, state.reachability == EntityReachability::REACHABLE);
    });
  }
  if (options_.onStateChange) {
    runContained(logSchema::value::ON_STATE_CHANGE, state.entityId,
                 [&] { options_.onStateChange(state); });
  }
}

}  // namespace veranda::reachabilityCache
