// A reachability checker that a test drives by hand: checks stay pending until
// the test completes them, and connectivity events are delivered on demand.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "reachabilityCache/EndpointInfo.h"
#include "reachabilityCache/IReachabilityChecker.h"
#include "reachabilityCache/ReachabilityCheckResult.h"

namespace veranda::reachabilityCache::test {

// Thread safety: every member may be called from any thread. Callbacks run on
// the thread that completes a check or delivers an event, never under the
// fake's lock. unregisterReachabilityUpdateCallback() keeps the interface's
// promise: after true no call of that callback runs on another thread or
// starts.
//
// A cache's teardown: the fake never calls into a cache that is gone. A cache
// starts its checks on a task executor of its own, which goes with the cache;
// completing a check whose executor has been destroyed throws
// std::logic_error instead of calling into freed memory, whatever became of
// the cache's update callback, and with any number of caches on one fake.
// (Checks started on a thread that is no executor's, such as a test's own
// calls, are not judged.) A cache cancels its update callback when destroyed:
// deliverEvent() throws likewise while a callback whose cancellation was
// refused is still registered.
class FakeReachabilityChecker : public IReachabilityChecker {
 public:
  // Decides one requested endpoint's result.
  using Responder = std::function<ReachabilityCheckResult(const EndpointInfo&)>;

  // One call of checkReachability().
  struct CheckRequest {
    std::vector<EndpointInfo> endpoints;  // as the cache asked, in its order
    std::string requestId;                // as the cache named it
    bool accepted;                        // false when refused (setRefuseChecks())
  };

  FakeReachabilityChecker();
  ~FakeReachabilityChecker() override;

  FakeReachabilityChecker(const FakeReachabilityChecker&) = delete;
  FakeReachabilityChecker& operator=(const FakeReachabilityChecker&) = delete;

  // ---- Behaviour ----

  // Refused checks answer false and are never completed.
  void setRefuseChecks(bool refuse);
  // Refused registrations answer false and register nothing.
  void setRefuseRegistrations(bool refuse);
  // Refused cancellations answer false and leave the callback registered.
  void setRefuseUnregistrations(bool refuse);
  // With a responder, every accepted check is answered at once, on the calling
  // thread, with one result per distinct endpoint id; without one (the
  // default) checks stay pending until completed.
  void setResponder(Responder responder);

  // ---- Driving ----

  // Completes the oldest pending check with `results`, on this thread. False
  // when none is pending; throws std::logic_error, the check dropped, when
  // its cache has ended (see above).
  bool completeNextCheck(const std::vector<ReachabilityCheckResult>& results);
  // Completes the oldest pending check with `responder`'s answer for each
  // distinct requested endpoint id; otherwise as above.
  bool completeNextCheck(const Responder& responder);
  // Forgets every pending check without calling it.
  void dropPendingChecks();
  // Calls every registered update callback with `result`, on this thread,
  // skipping one cancelled meanwhile. Returns how many were called. Throws
  // std::logic_error, calling none, while a callback whose cancellation was
  // refused is registered.
  std::size_t deliverEvent(const ReachabilityCheckResult& result);

  // ---- Observation ----

  // Every checkReachability call since the fake was made or the requests were
  // last taken, refused ones included, in order.
  std::vector<CheckRequest> checkRequests() const;
  // The same, forgotten by the fake: a long test keeps only what it takes.
  std::vector<CheckRequest> takeCheckRequests();
  // Accepted checks not yet completed or dropped.
  std::size_t pendingChecks() const;
  // The ids of the update callbacks registered now, sorted.
  std::vector<std::string> registeredCallbackIds() const;
  // Waits until at least `count` checks were requested in all (accepted or
  // not, taken or not).
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
  struct State;
  const std::unique_ptr<State> state_;
};

// A result for `endpoint`: reachable ones carry its capabilities under NATIVE
// (0), unreachable ones carry none and NO_DRIVER.
ReachabilityCheckResult makeResult(const EndpointInfo& endpoint, bool reachable);

}  // namespace veranda::reachabilityCache::test
