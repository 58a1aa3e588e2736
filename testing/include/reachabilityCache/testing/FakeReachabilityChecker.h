// A reachability checker that a test drives by hand: checks stay pending until
// the test completes them, and connectivity events are delivered on demand.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "reachabilityCache/EndpointInfo.h"
#include "reachabilityCache/IReachabilityChecker.h"
#include "reachabilityCache/ReachabilityCheckResult.h"

namespace veranda::reachabilityCache::test {

// Thread safety: every member may be called from any thread. Callbacks run on
// the thread that completes a check or delivers an event, never under the
// fake's lock.
class FakeReachabilityChecker : public IReachabilityChecker {
 public:
  using ResultsCallback = std::function<void(const std::vector<ReachabilityCheckResult>&)>;
  using UpdateCallback = std::function<void(const ReachabilityCheckResult&)>;
  // Decides one requested endpoint's result.
  using Responder = std::function<ReachabilityCheckResult(const EndpointInfo&)>;

  struct CheckRequest {
    std::vector<EndpointInfo> endpoints;
    std::string requestId;
    bool accepted;
  };

  FakeReachabilityChecker() = default;
  ~FakeReachabilityChecker() override = default;

  // ---- Behaviour ----

  // Refused checks answer false and are never completed.
  void setRefuseChecks(bool refuse);
  void setRefuseRegistrations(bool refuse);
  void setRefuseUnregistrations(bool refuse);
  // With a responder, every accepted check is answered at once, on the calling
  // thread, with one result per distinct endpoint id; without one (the
  // default) checks stay pending until completed.
  void setResponder(Responder responder);

  // ---- Driving ----

  // Completes the oldest pending check with `results`, on this thread. False
  // when none is pending.
  bool completeNextCheck(const std::vector<ReachabilityCheckResult>& results);
  // Completes the oldest pending check with `responder`'s answer for each
  // distinct requested endpoint id.
  bool completeNextCheck(const Responder& responder);
  // Forgets every pending check without calling it.
  void dropPendingChecks();
  // Calls every registered update callback with `result`, on this thread.
  // Returns how many were called.
  std::size_t deliverEvent(const ReachabilityCheckResult& result);

  // ---- Observation ----

  // Every checkReachability call so far, refused ones included, in order.
  std::vector<CheckRequest> checkRequests() const;
  std::size_t pendingChecks() const;
  std::vector<std::string> registeredCallbackIds() const;
  // Waits until at least `count` checks were requested (accepted or not).
  bool waitForCheckRequests(std::size_t count, std::chrono::milliseconds timeout) const;
  // Waits until at least `count` checks are pending.
  bool waitForPendingChecks(std::size_t count, std::chrono::milliseconds timeout) const;

  // ---- IReachabilityChecker ----

  bool checkReachability(const std::vector<EndpointInfo>& endpoints, const std::string& requestId,
                         ResultsCallback callback) override;
  bool registerReachabilityUpdateCallback(const std::string& callbackId,
                                          UpdateCallback callback) override;
  bool unregisterReachabilityUpdateCallback(const std::string& callbackId) override;

 private:
  struct PendingCheck {
    std::vector<EndpointInfo> endpoints;
    ResultsCallback callback;
  };

  static std::vector<ReachabilityCheckResult> answer(const std::vector<EndpointInfo>& endpoints,
                                                     const Responder& responder);
  bool takeNextPending(PendingCheck& check);

  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  bool refuseChecks_ = false;
  bool refuseRegistrations_ = false;
  bool refuseUnregistrations_ = false;
  Responder responder_;
  std::vector<CheckRequest> requests_;
  std::deque<PendingCheck> pending_;
  std::map<std::string, UpdateCallback> updateCallbacks_;
};

// A result for `endpoint`: reachable ones carry its capabilities under driver
// type 0, unreachable ones carry none and driver type 2.
ReachabilityCheckResult makeResult(const EndpointInfo& endpoint, bool reachable);

}  // namespace veranda::reachabilityCache::test
