#include "tracker/TrackerCore.h"

#include <algorithm>

#include "taskExecutor/Message.h"

namespace veranda::reachabilityCache {
namespace {

std::shared_ptr<TaskExecutor> makeTimer(std::chrono::milliseconds holdDown) {
  if (holdDown <= std::chrono::milliseconds::zero()) {
    return nullptr;
  }
  return TaskExecutor::create([](std::unique_ptr<Message> /*unused*/) {}, nullptr);
}

}  // namespace

TrackerCore::TrackerCore(std::shared_ptr<CacheCore> store, ChangeCallback callback,
                         std::chrono::milliseconds unreachableHoldDown)
    : store_(std::move(store)),
      callback_(std::move(callback)),
      holdDown_(unreachableHoldDown),
      timer_(makeTimer(unreachableHoldDown)) {}

void TrackerCore::settle() {
  const CallbackGate::Pass pass(gate_);
  if (!pass) {
    return;
  }
  {
    MutexLock lock(mutex_);
    judgeAll();
  }
  deliver();
}

void TrackerCore::onNotification(const std::string& entityId) {
  // A copy: judgeAll() calls the store, which reuses the buffer.
  const std::string id = CacheCore::normalizeEntityId(entityId);
  const CallbackGate::Pass pass(gate_);
  if (!pass) {
    return;
  }
  {
    MutexLock lock(mutex_);
    if (applying_.count(id) != 0) {
      return;  // the batch's end settles it
    }
    judgeAll();
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
    MutexLock lock(mutex_);
    for (const ReachabilityCheckResult& result : results) {
      const auto entity = applying_.find(CacheCore::normalizeEntityId(result.entityId));
      if (entity != applying_.end() && --entity->second == 0) {
        applying_.erase(entity);
      }
    }
    judgeAll();
  }
  deliver();
}

bool TrackerCore::reportedReachable(const std::string& entityId) const {
  const std::string& id = CacheCore::normalizeEntityId(entityId);
  MutexLock lock(mutex_);
  return shown_.count(id) != 0;
}

std::vector<std::string> TrackerCore::reportedReachableEntities() const {
  std::vector<std::string> entities;
  {
    MutexLock lock(mutex_);
    entities.assign(shown_.begin(), shown_.end());
  }
  std::sort(entities.begin(), entities.end());
  return entities;
}

void TrackerCore::close() {
  gate_.close();
  if (timer_ != nullptr) {
    timer_->removeCallbacksAndMessages();
  }
}

void TrackerCore::judgeAll() {
  const std::unordered_set<std::string> reachable = store_->getReachableEntityIds();
  for (const std::string& entityId : reachable) {
    if (applying_.count(entityId) == 0) {
      judge(entityId, true);
    }
  }
  std::vector<std::string> lost;
  for (const std::string& entityId : shown_) {
    if (reachable.count(entityId) == 0 && applying_.count(entityId) == 0) {
      lost.push_back(entityId);
    }
  }
  for (const std::string& entityId : lost) {
    judge(entityId, false);
  }
}

void TrackerCore::judge(const std::string& entityId, bool reachableNow) {
  const bool shown = shown_.count(entityId) != 0;
  if (reachableNow) {
    pendingLosses_.erase(entityId);
    if (!shown) {
      shown_.insert(entityId);
      undelivered_.emplace_back(entityId, true);
    }
    return;
  }
  if (!shown) {
    return;
  }
  const auto pending = pendingLosses_.find(entityId);
  if (timer_ != nullptr && (pending == pendingLosses_.end() || !pending->second.expired)) {
    if (pending == pendingLosses_.end()) {
      startHoldDown(entityId);
    }
    return;
  }
  if (pending != pendingLosses_.end()) {
    pendingLosses_.erase(pending);
  }
  shown_.erase(entityId);
  undelivered_.emplace_back(entityId, false);
}

void TrackerCore::startHoldDown(const std::string& entityId) {
  const uint64_t token = ++lastToken_;
  pendingLosses_[entityId] = {token, false};
  timer_->postDelayed(
      [core = weak_from_this(), entityId, token] {
        if (const auto alive = core.lock()) {
          alive->onHoldDownEnded(entityId, token);
        }
      },
      holdDown_);
}

void TrackerCore::onHoldDownEnded(const std::string& entityId, uint64_t token) {
  const CallbackGate::Pass pass(gate_);
  if (!pass) {
    return;
  }
  {
    MutexLock lock(mutex_);
    const auto pending = pendingLosses_.find(entityId);
    if (pending == pendingLosses_.end() || pending->second.token != token) {
      return;  // the entity came back meanwhile
    }
    pending->second.expired = true;
    judgeAll();
  }
  deliver();
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
    std::pair<std::string, bool> change;
    {
      MutexLock lock(mutex_);
      if (undelivered_.empty() || gate_.isClosed()) {
        delivering_ = false;
        return;
      }
      change = std::move(undelivered_.front());
      undelivered_.pop_front();
    }
    callback_(change.first, change.second);
  }
}

}  // namespace veranda::reachabilityCache
