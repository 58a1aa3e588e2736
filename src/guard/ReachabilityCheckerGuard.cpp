#include "reachabilityCache/ReachabilityCheckerGuard.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "guard/CallbackGate.h"
#include "sync/Mutex.h"

namespace veranda::reachabilityCache {

using Observers = std::vector<std::shared_ptr<ReachabilityCheckerGuard::Observer>>;

// Outlives the guard for as long as a wrapped callback exists.
class ReachabilityCheckerGuard::Shared {
 public:
  CallbackGate gate;

  void add(std::shared_ptr<Observer> observer) RC_EXCLUDES(mutex_) {
    MutexLock lock(mutex_);
    observers_.push_back(std::move(observer));
  }

  void remove(const Observer* observer) RC_EXCLUDES(mutex_) {
    Observers removed;  // released after the lock
    MutexLock lock(mutex_);
    const auto found = std::find_if(
        observers_.begin(), observers_.end(),
        [observer](const std::shared_ptr<Observer>& o) { return o.get() == observer; });
    if (found != observers_.end()) {
      removed.push_back(std::move(*found));
      observers_.erase(found);
    }
  }

  Observers observers() const RC_EXCLUDES(mutex_) {
    MutexLock lock(mutex_);
    return observers_;
  }

  // True the first time only.
  bool claim() RC_EXCLUDES(mutex_) {
    MutexLock lock(mutex_);
    const bool first = !claimed_;
    claimed_ = true;
    return first;
  }

 private:
  mutable Mutex mutex_;
  Observers observers_ RC_GUARDED_BY(mutex_);
  bool claimed_ RC_GUARDED_BY(mutex_) = false;
};

ReachabilityCheckerGuard::ReachabilityCheckerGuard(std::shared_ptr<IReachabilityChecker> checker)
    : shared_(std::make_shared<Shared>()), checker_(std::move(checker)) {}

ReachabilityCheckerGuard::~ReachabilityCheckerGuard() { close(); }

void ReachabilityCheckerGuard::close() { shared_->gate.close(); }

bool ReachabilityCheckerGuard::isClosed() const { return shared_->gate.isClosed(); }

void ReachabilityCheckerGuard::addObserver(std::shared_ptr<Observer> observer) {
  shared_->add(std::move(observer));
}

void ReachabilityCheckerGuard::removeObserver(const Observer* observer) {
  shared_->remove(observer);
}

void ReachabilityCheckerGuard::claimForCache() {
  if (!shared_->claim()) {
    throw std::logic_error(
        "ReachabilityCheckerGuard: this guard serves another cache already; give each cache a "
        "guard of its own (closing a guard shared by two caches cuts both off)");
  }
  if (isClosed()) {
    throw std::logic_error(
        "ReachabilityCheckerGuard: this guard is closed and can serve no cache; give the new "
        "cache a guard of its own");
  }
}

// The pass is held until the check has been handed on, so that close() on
// another thread waits for it; close() called meanwhile on this thread (by an
// observer) is seen before the check is handed on.
bool ReachabilityCheckerGuard::checkReachability(const std::vector<EndpointInfo>& endpoints,
                                                 const std::string& requestId,
                                                 ResultsCallback callback) {
  if (checker_ == nullptr) {
    return false;
  }
  const CallbackGate::Pass pass(shared_->gate);
  if (!pass) {
    return true;  // accepted and dropped: see close()
  }
  for (const auto& observer : shared_->observers()) {
    observer->onCheckStarting();
  }
  if (shared_->gate.isClosed()) {
    return true;  // closed meanwhile: dropped as after close()
  }
  // The completion holds the wrapped checker: a late answer still needs it.
  auto guarded = [shared = shared_, checker = checker_, callback = std::move(callback)](
                     const std::vector<ReachabilityCheckResult>& results) {
    const CallbackGate::Pass pass(shared->gate);
    if (!pass) {
      return;
    }
    const Observers observers = shared->observers();
    for (const auto& observer : observers) {
      observer->onResultsArriving(results);
    }
    // Closed meanwhile: the cache hears nothing more, but the observers still
    // hear the end of what they heard arriving.
    if (!shared->gate.isClosed()) {
      callback(results);
    }
    for (const auto& observer : observers) {
      observer->onResultsApplied(results);
    }
  };
  return checker_->checkReachability(endpoints, requestId, std::move(guarded));
}

bool ReachabilityCheckerGuard::registerReachabilityUpdateCallback(const std::string& callbackId,
                                                                  UpdateCallback callback) {
  if (checker_ == nullptr) {
    return false;
  }
  const CallbackGate::Pass pass(shared_->gate);  // held until the subscription is made
  if (!pass) {
    return false;
  }
  // An empty callback stays empty, so that the checker refuses it as usual.
  UpdateCallback guarded;
  if (callback) {
    guarded = [shared = shared_,
               callback = std::move(callback)](const ReachabilityCheckResult& result) {
      const CallbackGate::Pass pass(shared->gate);
      if (pass) {
        callback(result);
      }
    };
  }
  return checker_->registerReachabilityUpdateCallback(callbackId, std::move(guarded));
}

bool ReachabilityCheckerGuard::unregisterReachabilityUpdateCallback(const std::string& callbackId) {
  return checker_ != nullptr && checker_->unregisterReachabilityUpdateCallback(callbackId);
}

}  // namespace veranda::reachabilityCache
