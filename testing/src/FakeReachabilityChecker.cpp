#include "reachabilityCache/testing/FakeReachabilityChecker.h"

#include <unordered_set>
#include <utility>

namespace veranda::reachabilityCache::test {

using applianceDriver::ApplianceDriverType;

ReachabilityCheckResult makeResult(const EndpointInfo& endpoint, bool reachable) {
  if (reachable) {
    return {endpoint.endpointId,   endpoint.entityId,          endpoint.adapterName, true,
            endpoint.capabilities, ApplianceDriverType::NATIVE};
  }
  return {endpoint.endpointId,         endpoint.entityId, endpoint.adapterName, false, {},
          ApplianceDriverType::UNKNOWN};
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

std::size_t FakeReachabilityChecker::deliverEvent(const ReachabilityCheckResult& result) {
  std::vector<UpdateCallback> callbacks;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& entry : updateCallbacks_) {
      callbacks.push_back(entry.second);
    }
  }
  for (const UpdateCallback& callback : callbacks) {
    callback(result);
  }
  return callbacks.size();
}

std::vector<FakeReachabilityChecker::CheckRequest> FakeReachabilityChecker::checkRequests() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return requests_;
}

std::size_t FakeReachabilityChecker::pendingChecks() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return pending_.size();
}

std::vector<std::string> FakeReachabilityChecker::registeredCallbackIds() const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<std::string> ids;
  for (const auto& entry : updateCallbacks_) {
    ids.push_back(entry.first);
  }
  return ids;
}

bool FakeReachabilityChecker::waitForCheckRequests(std::size_t count,
                                                   std::chrono::milliseconds timeout) const {
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_for(lock, timeout, [&] { return requests_.size() >= count; });
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
    changed_.notify_all();
    if (refuseChecks_) {
      return false;
    }
    if (!responder_) {
      pending_.push_back({endpoints, std::move(callback)});
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
      updateCallbacks_.count(callbackId) != 0) {
    return false;
  }
  updateCallbacks_.emplace(callbackId, std::move(callback));
  return true;
}

bool FakeReachabilityChecker::unregisterReachabilityUpdateCallback(const std::string& callbackId) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (refuseUnregistrations_) {
    return false;
  }
  return updateCallbacks_.erase(callbackId) != 0;
}

}  // namespace veranda::reachabilityCache::test
