// Keeps the store in step with the real reachability of endpoints.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "reachabilityCache/EndpointInfo.h"
#include "reachabilityCache/ICHRProvider.h"
#include "reachabilityCache/IReachabilityChecker.h"
#include "reachabilityCache/ReachabilityCacheHealth.h"
#include "reachabilityCache/ReachabilityCheckResult.h"
#include "store/CacheCore.h"
#include "store/ChangeOrigin.h"
#include "sync/Mutex.h"
#include "taskExecutor/TaskExecutor.h"

namespace veranda::reachabilityCache {

// Refreshes the store three ways, all on its own task executor: a periodic
// cycle that re-arms itself, a one-off manual trigger, and proactive
// connectivity events from the checker. Results of batch checks are applied on
// the checker's thread; proactive events are moved onto the executor first.
// Listeners hear of every change of an entity's reachability.
//
// Thread safety: the public operations may be called from any thread.
//
// Lifetime: posted tasks and callbacks handed to the checker hold the updater
// by plain pointer. The destructor drops queued tasks, waits for a running one
// and cancels the proactive subscription, but does not cancel checks already
// started: the owner must keep the checker from delivering results after the
// updater is gone.
class ReachabilityUpdater {
 public:
  // Takes over both shared pointers; `chrProvider` is borrowed and may be null.
  // With a null checker no check starts and proactive updates cannot be
  // enabled.
  ReachabilityUpdater(std::shared_ptr<CacheCore> cache,
                      std::shared_ptr<IReachabilityChecker> checker, ICHRProvider* chrProvider);
  ~ReachabilityUpdater();

  ReachabilityUpdater(const ReachabilityUpdater&) = delete;
  ReachabilityUpdater& operator=(const ReachabilityUpdater&) = delete;

  // Starts a chain of periodic cycles, the first after `initialDelay` (at
  // once when below 1 ms), each next one `interval` after the start of the
  // previous. A second call starts a second, independent chain.
  void startPeriodicUpdates(std::chrono::seconds interval, std::chrono::milliseconds initialDelay);
  // Ends the chain and drops every queued task, manual triggers and proactive
  // events included. A running cycle finishes but does not re-arm.
  void stopPeriodicUpdates();
  bool isPeriodicUpdatesRunning() const;

  // Checks `endpoints` once, on the executor; returns at once.
  void triggerUpdate(const std::vector<EndpointInfo>& endpoints);

  // Subscribes to connectivity events through the checker. True when enabled
  // after the call (newly or already); false when the checker refused.
  bool enableProactiveUpdates() RC_EXCLUDES(mutex);
  // Cancels the subscription; events already queued still apply.
  void disableProactiveUpdates() RC_EXCLUDES(mutex);
  bool isProactiveUpdatesEnabled() const;

  // Whether events are heard, and how the checks went so far.
  ReachabilityCacheHealth health() const;

 private:
  void performPeriodicUpdate();
  void performManualUpdate(const std::vector<EndpointInfo>& endpoints);
  std::string generateRequestId();
  // Starts a batch check whose results are applied on the checker's thread,
  // as changes of `origin`, and counted for health().
  bool startCheck(const std::vector<EndpointInfo>& endpoints, const std::string& requestId,
                  ChangeOrigin origin);
  void countAnswer(ChangeOrigin origin);
  void removeStaleEntries(const CacheCore::EndpointIdSet& currentEndpointIds);
  void rearmPeriodicUpdate();
  void processReachabilityResults(const std::vector<ReachabilityCheckResult>& results);
  bool processReachableEndpoint(const ReachabilityCheckResult& result, bool wasReachable);
  bool processUnreachableEndpoint(const ReachabilityCheckResult& result, bool wasReachable);
  void handleProactiveUpdate(const ReachabilityCheckResult& result);

  std::shared_ptr<CacheCore> cache;
  std::shared_ptr<IReachabilityChecker> checker;
  ICHRProvider* chrProvider;
  std::atomic<bool> periodicUpdatesRunning{false};
  std::atomic<int64_t> updateInterval{0};  // seconds
  std::atomic<bool> proactiveUpdatesEnabled{false};
  std::string proactiveCallbackId RC_GUARDED_BY(mutex);
  Mutex mutex;
  std::atomic<uint64_t> requestCounter{0};
  // For health(): checks handed to the checker, refused, answered.
  std::atomic<uint64_t> checksRequested_{0};
  std::atomic<uint64_t> checksRefused_{0};
  std::atomic<uint64_t> checksAnswered_{0};
  std::atomic<uint64_t> cyclesAnswered_{0};
  std::atomic<std::chrono::steady_clock::rep> lastCycleAnsweredAt_{0};
  // Declared last so that it is destroyed first: its destructor waits for a
  // running task, which may still use every other member.
  std::shared_ptr<TaskExecutor> taskExecutor;
};

}  // namespace veranda::reachabilityCache
