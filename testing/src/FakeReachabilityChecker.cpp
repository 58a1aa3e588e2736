#include "reachabilityCache/testing/FakeReachabilityChecker.h"

#include <algorithm>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <stdexcept>
#include <thread>
#include <unordered_set>
#include <utility>

#include "scheduling/DelayedTaskQueue.h"
#include "sync/Mutex.h"

namespace veranda::reachabilityCache::test {
namespace {

using applianceDriver::ApplianceDriverType;
using Responder = FakeReachabilityChecker::Responder;
using ResultsCallback = IReachabilityChecker::ResultsCallback;
using UpdateCallback = IReachabilityChecker::UpdateCallback;

struct PendingCheck {
  std::vector<EndpointInfo> endpoints;
  ResultsCallback callback;
  std::string requestId;
  std::weak_ptr<const void> starter;  // the executor that started it, when fromTask
  bool fromTask = false;
};

struct Subscription {
  uint64_t token;  // tells a registration from a later one under the same id
  std::shared_ptr<const UpdateCallback> callback;
  bool cancelled;  // cancellation refused: its cache has ended all the same
};

// One result per distinct endpoint id: the responder's answer for its last
// occurrence, last first.
std::vector<ReachabilityCheckResult> answer(const std::vector<EndpointInfo>& endpoints,
                                            const Responder& responder) {
  std::vector<ReachabilityCheckResult> results;
  std::unordered_set<std::string> answered;
  for (auto it = endpoints.rbegin(); it != endpoints.rend(); ++it) {
    if (answered.insert(it->endpointId).second) {
      results.push_back(responder(*it));
    }
  }
  return results;
}

}  // namespace

struct FakeReachabilityChecker::State {
  // Takes the oldest pending check; false when none. Throws std::logic_error,
  // the check dropped, when its cache has ended.
  bool takeNextPending(PendingCheck& check) RC_EXCLUDES(mutex);
  bool deliveringElsewhereLocked(uint64_t token) const RC_REQUIRES(mutex);

  mutable Mutex mutex;
  std::condition_variable_any changed;
  bool refuseChecks RC_GUARDED_BY(mutex) = false;
  bool refuseRegistrations RC_GUARDED_BY(mutex) = false;
  bool refuseUnregistrations RC_GUARDED_BY(mutex) = false;
  Responder responder RC_GUARDED_BY(mutex);
  std::vector<CheckRequest> requests RC_GUARDED_BY(mutex);
  std::size_t requestCount RC_GUARDED_BY(mutex) = 0;
  std::deque<PendingCheck> pending RC_GUARDED_BY(mutex);
  std::map<std::string, Subscription> subscriptions RC_GUARDED_BY(mutex);
  uint64_t nextToken RC_GUARDED_BY(mutex) = 1;
  // Deliveries running now: the subscription's token and the delivering thread.
  std::vector<std::pair<uint64_t, std::thread::id>> delivering RC_GUARDED_BY(mutex);
};

bool FakeReachabilityChecker::State::takeNextPending(PendingCheck& check) {
  MutexLock lock(mutex);
  if (pending.empty()) {
    return false;
  }
  check = std::move(pending.front());
  pending.pop_front();
  changed.notify_all();
  if (check.fromTask && check.starter.expired()) {
    throw std::logic_error("FakeReachabilityChecker: check \"" + check.requestId +
                           "\" belongs to a cache that is gone (the task executor that started "
                           "it has been destroyed); completing it would call into freed memory");
  }
  return true;
}

bool FakeReachabilityChecker::State::deliveringElsewhereLocked(uint64_t token) const {
  return std::any_of(delivering.begin(), delivering.end(), [token](const auto& running) {
    return running.first == token && running.second != std::this_thread::get_id();
  });
}

ReachabilityCheckResult makeResult(const EndpointInfo& endpoint, bool reachable) {
  if (reachable) {
    return {endpoint.endpointId,   endpoint.entityId,          endpoint.adapterName, true,
            endpoint.capabilities, ApplianceDriverType::NATIVE};
  }
  return {endpoint.endpointId,           endpoint.entityId, endpoint.adapterName, false, {},
          ApplianceDriverType::NO_DRIVER};
}

FakeReachabilityChecker::FakeReachabilityChecker() : state_(std::make_unique<State>()) {}

FakeReachabilityChecker::~FakeReachabilityChecker() = default;

void FakeReachabilityChecker::setRefuseChecks(bool refuse) {
  MutexLock lock(state_->mutex);
  state_->refuseChecks = refuse;
}

void FakeReachabilityChecker::setRefuseRegistrations(bool refuse) {
  MutexLock lock(state_->mutex);
  state_->refuseRegistrations = refuse;
}

void FakeReachabilityChecker::setRefuseUnregistrations(bool refuse) {
  MutexLock lock(state_->mutex);
  state_->refuseUnregistrations = refuse;
}

void FakeReachabilityChecker::setResponder(Responder responder) {
  MutexLock lock(state_->mutex);
  state_->responder = std::move(responder);
}

bool FakeReachabilityChecker::completeNextCheck(
    const std::vector<ReachabilityCheckResult>& results) {
  PendingCheck check;
  if (!state_->takeNextPending(check)) {
    return false;
  }
  check.callback(results);
  return true;
}

bool FakeReachabilityChecker::completeNextCheck(const Responder& responder) {
  PendingCheck check;
  if (!state_->takeNextPending(check)) {
    return false;
  }
  check.callback(answer(check.endpoints, responder));
  return true;
}

void FakeReachabilityChecker::dropPendingChecks() {
  std::deque<PendingCheck> dropped;
  {
    MutexLock lock(state_->mutex);
    dropped.swap(state_->pending);
    state_->changed.notify_all();
  }
}

// Each callback is called only if still registered when its turn comes, and
// marked as running meanwhile so that its cancellation waits for it.
std::size_t FakeReachabilityChecker::deliverEvent(const ReachabilityCheckResult& result) {
  State& state = *state_;
  RelockableMutexLock lock(state.mutex);
  std::vector<std::pair<std::string, uint64_t>> targets;
  for (const auto& [id, subscription] : state.subscriptions) {
    if (subscription.cancelled) {
      throw std::logic_error("FakeReachabilityChecker: deliverEvent() while update callback \"" +
                             id +
                             "\" is registered though its cache is gone (its cancellation was "
                             "refused); calling it would call into freed memory");
    }
    targets.emplace_back(id, subscription.token);
  }
  std::size_t called = 0;
  for (const auto& [id, token] : targets) {
    auto found = state.subscriptions.find(id);
    if (found == state.subscriptions.end() || found->second.token != token) {
      continue;
    }
    std::shared_ptr<const UpdateCallback> callback = found->second.callback;
    const auto running = std::make_pair(token, std::this_thread::get_id());
    state.delivering.push_back(running);
    lock.unlock();
    (*callback)(result);
    callback.reset();
    lock.lock();
    state.delivering.erase(std::find(state.delivering.begin(), state.delivering.end(), running));
    state.changed.notify_all();
    ++called;
  }
  return called;
}

std::vector<FakeReachabilityChecker::CheckRequest> FakeReachabilityChecker::checkRequests() const {
  MutexLock lock(state_->mutex);
  return state_->requests;
}

std::vector<FakeReachabilityChecker::CheckRequest> FakeReachabilityChecker::takeCheckRequests() {
  MutexLock lock(state_->mutex);
  std::vector<CheckRequest> taken;
  taken.swap(state_->requests);
  return taken;
}

std::size_t FakeReachabilityChecker::pendingChecks() const {
  MutexLock lock(state_->mutex);
  return state_->pending.size();
}

std::vector<std::string> FakeReachabilityChecker::registeredCallbackIds() const {
  MutexLock lock(state_->mutex);
  std::vector<std::string> ids;
  for (const auto& entry : state_->subscriptions) {
    ids.push_back(entry.first);
  }
  return ids;
}

bool FakeReachabilityChecker::waitForCheckRequests(std::size_t count,
                                                   std::chrono::milliseconds timeout) const {
  State& state = *state_;
  MutexLock lock(state.mutex);
  return state.changed.wait_for(
      state.mutex, timeout, [&]() RC_REQUIRES(state.mutex) { return state.requestCount >= count; });
}

bool FakeReachabilityChecker::waitForPendingChecks(std::size_t count,
                                                   std::chrono::milliseconds timeout) const {
  State& state = *state_;
  MutexLock lock(state.mutex);
  return state.changed.wait_for(state.mutex, timeout, [&]() RC_REQUIRES(state.mutex) {
    return state.pending.size() >= count;
  });
}

bool FakeReachabilityChecker::checkReachability(const std::vector<EndpointInfo>& endpoints,
                                                const std::string& requestId,
                                                ResultsCallback callback) {
  State& state = *state_;
  Responder responder;
  {
    MutexLock lock(state.mutex);
    state.requests.push_back({endpoints, requestId, !state.refuseChecks});
    ++state.requestCount;
    state.changed.notify_all();
    if (state.refuseChecks) {
      return false;
    }
    if (!state.responder) {
      std::weak_ptr<const void> starter = scheduling::DelayedTaskQueue::runningTaskQueue();
      const bool fromTask = scheduling::DelayedTaskQueue::inTask();
      state.pending.push_back(
          {endpoints, std::move(callback), requestId, std::move(starter), fromTask});
      state.changed.notify_all();
      return true;
    }
    responder = state.responder;
  }
  callback(answer(endpoints, responder));
  return true;
}

bool FakeReachabilityChecker::registerReachabilityUpdateCallback(const std::string& callbackId,
                                                                 UpdateCallback callback) {
  State& state = *state_;
  MutexLock lock(state.mutex);
  if (callbackId.empty() || !callback || state.refuseRegistrations ||
      state.subscriptions.count(callbackId) != 0) {
    return false;
  }
  state.subscriptions.emplace(
      callbackId, Subscription{state.nextToken++,
                               std::make_shared<const UpdateCallback>(std::move(callback)), false});
  return true;
}

bool FakeReachabilityChecker::unregisterReachabilityUpdateCallback(const std::string& callbackId) {
  State& state = *state_;
  std::shared_ptr<const UpdateCallback> dropped;  // destroyed after the lock is released
  MutexLock lock(state.mutex);
  auto found = state.subscriptions.find(callbackId);
  if (found == state.subscriptions.end()) {
    return false;
  }
  const uint64_t token = found->second.token;
  if (state.refuseUnregistrations) {
    found->second.cancelled = true;
    return false;
  }
  dropped = std::move(found->second.callback);
  state.subscriptions.erase(found);
  state.changed.wait(state.mutex, [&]() RC_REQUIRES(state.mutex) {
    return !state.deliveringElsewhereLocked(token);
  });
  return true;
}

}  // namespace veranda::reachabilityCache::test
