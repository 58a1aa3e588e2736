#include "reachabilityCache/testing/FakeReachabilityChecker.h"

#include <algorithm>
#include <stdexcept>
#include <unordered_set>
#include <utility>

#include "scheduling/DelayedTaskQueue.h"

namespace veranda::reachabilityCache::test {

using applianceDriver::ApplianceDriverType;

ReachabilityCheckResult makeResult(const EndpointInfo& endpoint, bool reachable) {
  if (reachable) {
    return {endpoint.endpointId,   endpoint.entityId,          endpoint.adapterName, true,
            endpoint.capabilities, ApplianceDriverType::NATIVE};
  }
  return {endpoint.endpointId,           endpoint.entityId, endpoint.adapterName, false, {},
          ApplianceDriverType::NO_DRIVER};
}

void FakeReachabilityChecker::setRefuseChecks(bool refuse) {
  std::lock_guard<std::mutex> lock(mutex_);
  refuseChecks_ = refuse;
}

void FakeReachabilityChecker::setRefuseRegistrations(bool refuse) {
  std::lock_guard<std::mutex> lock(mutex_);
  refuseRegistrations_ = refuse;
}

void FakeReachabilityChecker::setRefuseUnregistrations(bool refuse) {
  std::lock_guard<std::mutex> lock(mutex_);
  refuseUnregistrations_ = refuse;
}

void FakeReachabilityChecker::setResponder(Responder responder) {
  std::lock_guard<std::mutex> lock(mutex_);
  responder_ = std::move(responder);
}

std::vector<ReachabilityCheckResult> FakeReachabilityChecker::answer(
    const std::vector<EndpointInfo>& endpoints, const Responder& responder) {
  std::vector<ReachabilityCheckResult> results;
  std::unordered_set<std::string> answered;
  for (auto it = endpoints.rbegin(); it != endpoints.rend(); ++it) {
    if (answered.insert(it->endpointId).second) {
      results.push_back(responder(*it));
    }
  }
  return results;
}

bool FakeReachabilityChecker::takeNextPending(PendingCheck& check) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (pending_.empty()) {
    return false;
  }
  check = std::move(pending_.front());
  pending_.pop_front();
  changed_.notify_all();
  if (check.fromTask && check.starter.expired()) {
    throw std::logic_error("FakeReachabilityChecker: check \"" + check.requestId +
                           "\" belongs to a cache that is gone (the task executor that started "
                           "it has been destroyed); completing it would call into freed memory");
  }
  return true;
}

bool FakeReachabilityChecker::completeNextCheck(
    const std::vector<ReachabilityCheckResult>& results) {
  PendingCheck check;
  if (!takeNextPending(check)) {
    return false;
  }
  check.callback(results);
  return true;
}

bool FakeReachabilityChecker::completeNextCheck(const Responder& responder) {
  PendingCheck check;
  if (!takeNextPending(check)) {
    return false;
  }
  check.callback(answer(check.endpoints, responder));
  return true;
}

void FakeReachabilityChecker::dropPendingChecks() {
  std::deque<PendingCheck> dropped;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    dropped.swap(pending_);
    changed_.notify_all();
  }
}

// Each callback is called only if still registered when its turn comes, and
// marked as running meanwhile so that its cancellation waits for it.
std::size_t FakeReachabilityChecker::deliverEvent(const ReachabilityCheckResult& result) {
  std::unique_lock<std::mutex> lock(mutex_);
  std::vector<std::pair<std::string, uint64_t>> targets;
  for (const auto& [id, subscription] : subscriptions_) {
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
    auto found = subscriptions_.find(id);
    if (found == subscriptions_.end() || found->second.token != token) {
      continue;
    }
    std::shared_ptr<const UpdateCallback> callback = found->second.callback;
    const auto running = std::make_pair(token, std::this_thread::get_id());
    delivering_.push_back(running);
    lock.unlock();
    (*callback)(result);
    callback.reset();
    lock.lock();
    delivering_.erase(std::find(delivering_.begin(), delivering_.end(), running));
    changed_.notify_all();
    ++called;
  }
  return called;
}

std::vector<FakeReachabilityChecker::CheckRequest> FakeReachabilityChecker::checkRequests() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return requests_;
}

std::vector<FakeReachabilityChecker::CheckRequest> FakeReachabilityChecker::takeCheckRequests() {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<CheckRequest> taken;
  taken.swap(requests_);
  return taken;
}

std::size_t FakeReachabilityChecker::pendingChecks() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return pending_.size();
}

std::vector<std::string> FakeReachabilityChecker::registeredCallbackIds() const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<std::string> ids;
  for (const auto& entry : subscriptions_) {
    ids.push_back(entry.first);
  }
  return ids;
}

bool FakeReachabilityChecker::waitForCheckRequests(std::size_t count,
                                                   std::chrono::milliseconds timeout) const {
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_for(lock, timeout, [&] { return requestCount_ >= count; });
}

bool FakeReachabilityChecker::waitForPendingChecks(std::size_t count,
                                                   std::chrono::milliseconds timeout) const {
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_for(lock, timeout, [&] { return pending_.size() >= count; });
}

bool FakeReachabilityChecker::checkReachability(const std::vector<EndpointInfo>& endpoints,
                                                const std::string& requestId,
                                                ResultsCallback callback) {
  Responder responder;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    requests_.push_back({endpoints, requestId, !refuseChecks_});
    ++requestCount_;
    changed_.notify_all();
    if (refuseChecks_) {
      return false;
    }
    if (!responder_) {
      std::weak_ptr<const void> starter = scheduling::DelayedTaskQueue::runningTaskQueue();
      const bool fromTask = scheduling::DelayedTaskQueue::inTask();
      pending_.push_back({endpoints, std::move(callback), requestId, std::move(starter), fromTask});
      changed_.notify_all();
      return true;
    }
    responder = responder_;
  }
  callback(answer(endpoints, responder));
  return true;
}

bool FakeReachabilityChecker::registerReachabilityUpdateCallback(const std::string& callbackId,
                                                                 UpdateCallback callback) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (callbackId.empty() || !callback || refuseRegistrations_ ||
      subscriptions_.count(callbackId) != 0) {
    return false;
  }
  subscriptions_.emplace(
      callbackId, Subscription{nextToken_++,
                               std::make_shared<const UpdateCallback>(std::move(callback)), false});
  return true;
}

bool FakeReachabilityChecker::unregisterReachabilityUpdateCallback(const std::string& callbackId) {
  std::shared_ptr<const UpdateCallback> dropped;  // destroyed after the lock is released
  std::unique_lock<std::mutex> lock(mutex_);
  auto found = subscriptions_.find(callbackId);
  if (found == subscriptions_.end()) {
    return false;
  }
  const uint64_t token = found->second.token;
  if (refuseUnregistrations_) {
    found->second.cancelled = true;
    return false;
  }
  dropped = std::move(found->second.callback);
  subscriptions_.erase(found);
  changed_.wait(lock, [&] { return !deliveringElsewhereLocked(token); });
  return true;
}

bool FakeReachabilityChecker::deliveringElsewhereLocked(uint64_t token) const {
  return std::any_of(delivering_.begin(), delivering_.end(), [token](const auto& running) {
    return running.first == token && running.second != std::this_thread::get_id();
  });
}

}  // namespace veranda::reachabilityCache::test
