// Tasks and callbacks capture the updater as a plain `this`. Each is safe:
// - Tasks on taskExecutor (cycles, manual triggers, proactive events): the
//   destructor drops the queued ones, and taskExecutor, declared last, is
//   destroyed first and waits for a running one.
// - The proactive callback handed to the checker: the destructor unregisters
//   it, and after that returns true no call of it runs on another thread or
//   starts. A refused cancellation leaves it registered: the checker must not
//   refuse at teardown.
// - Completion callbacks of batch checks: nothing here cancels them. The
//   host puts a ReachabilityCheckerGuard between the cache and its checker and
//   closes it before the cache goes: a closed guard drops every late answer,
//   so none reaches a destroyed updater.
#include "updater/ReachabilityUpdater.h"

#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <utility>

#include "diagnostics/ComponentLog.h"
#include "diagnostics/LogBuilder.h"
#include "diagnostics/LogSchema.h"
#include "diagnostics/ReachabilityCacheMetrics.h"
#include "memory/Arena.h"
#include "taskExecutor/Message.h"

namespace veranda::reachabilityCache {

using namespace logSchema;
namespace {

using commonLog::LogBuilder;

const char* statusText(bool reachable, bool applied, bool wasReachable) {
  if (!applied) {
    return reachable ? summary::REACHABLE_INSERT_FAILED : summary::UNREACHABLE_INSERT_FAILED;
  }
  if (reachable) {
    return wasReachable ? summary::REACHABLE : summary::BECAME_REACHABLE;
  }
  return wasReachable ? summary::BECAME_UNREACHABLE : summary::ALREADY_UNREACHABLE;
}

void appendDetail(std::string& details, const ReachabilityCheckResult& result, const char* status) {
  details += summary::ENTRY_START;
  details += result.endpointId;
  details += " (";
  details += key::ENTITY_ID;
  details += '=';
  details += result.entityId;
  if (!result.adapterName.empty()) {
    details += ", ";
    details += key::ADAPTER;
    details += '=';
    details += result.adapterName;
  }
  details += "): ";
  details += status;
}

// The interval in milliseconds (seconds x 1000), held at the range of a count
// of milliseconds where the product would not fit.
std::chrono::milliseconds rearmDelay(int64_t intervalSeconds) {
  constexpr int64_t MILLIS_PER_SECOND = 1000;
  if (intervalSeconds > std::numeric_limits<int64_t>::max() / MILLIS_PER_SECOND) {
    return std::chrono::milliseconds::max();
  }
  if (intervalSeconds < std::numeric_limits<int64_t>::min() / MILLIS_PER_SECOND) {
    return std::chrono::milliseconds::min();
  }
  return std::chrono::milliseconds(intervalSeconds * MILLIS_PER_SECOND);
}

}  // namespace

ReachabilityUpdater::ReachabilityUpdater(std::shared_ptr<CacheCore> cache,
                                         std::shared_ptr<IReachabilityChecker> checker,
                                         ICHRProvider* chrProvider)
    : cache(std::move(cache)), checker(std::move(checker)), chrProvider(chrProvider) {
  logUpdater(LogPriority::INFO, LogBuilder(label::REACHABILITY_UPDATER, nullptr));
  taskExecutor = TaskExecutor::create([](std::unique_ptr<Message> /*unused*/) {}, nullptr);
}

ReachabilityUpdater::~ReachabilityUpdater() {
  logUpdater(LogPriority::INFO, LogBuilder(label::REACHABILITY_UPDATER_DESTRUCTOR, nullptr));
  stopPeriodicUpdates();
  disableProactiveUpdates();
}

// ---- Periodic schedule ----

void ReachabilityUpdater::startPeriodicUpdates(std::chrono::seconds interval,
                                               std::chrono::milliseconds initialDelay) {
  logUpdater(LogPriority::INFO,
             LogBuilder(label::START_PERIODIC_UPDATES, nullptr)
                 .d(key::INTERVAL_SECONDS, static_cast<long long>(interval.count()))
                 .d(key::INITIAL_DELAY_MS, static_cast<long long>(initialDelay.count())));
  updateInterval = interval.count();
  periodicUpdatesRunning = true;
  auto cycle = [this] { performPeriodicUpdate(); };
  if (initialDelay < std::chrono::milliseconds(1)) {
    taskExecutor->post(cycle);
  } else {
    taskExecutor->postDelayed(cycle, initialDelay);
  }
}

void ReachabilityUpdater::stopPeriodicUpdates() {
  logUpdater(LogPriority::INFO, LogBuilder(label::STOP_PERIODIC_UPDATES, nullptr));
  periodicUpdatesRunning = false;
  taskExecutor->removeCallbacksAndMessages();
}

bool ReachabilityUpdater::isPeriodicUpdatesRunning() const { return periodicUpdatesRunning; }

void ReachabilityUpdater::rearmPeriodicUpdate() {
  if (!periodicUpdatesRunning) {
    return;
  }
  taskExecutor->postDelayed([this] { performPeriodicUpdate(); }, rearmDelay(updateInterval));
}

// ---- Periodic cycle ----

std::string ReachabilityUpdater::generateRequestId() {
  return std::to_string(requestCounter.fetch_add(1));
}

void ReachabilityUpdater::performPeriodicUpdate() {
  if (!periodicUpdatesRunning) {
    logUpdater(LogPriority::DEBUG, LogBuilder(label::PERFORM_PERIODIC_UPDATE, nullptr)
                                       .d(key::REASON, reason::PERIODIC_UPDATES_DISABLED));
    return;
  }
  if (chrProvider == nullptr) {
    logUpdater(LogPriority::ERROR, LogBuilder(label::PERFORM_PERIODIC_UPDATE, nullptr)
                                       .d(key::REASON, reason::CHR_PROVIDER_NULL));
    return;
  }
  const std::vector<EndpointInfo> endpoints = chrProvider->queryEndpoints();
  if (endpoints.empty()) {
    logUpdater(LogPriority::WARN, LogBuilder(label::PERFORM_PERIODIC_UPDATE, nullptr)
                                      .d(key::REASON, reason::CHR_QUERY_RETURNED_EMPTY));
    rearmPeriodicUpdate();
    return;
  }
  logUpdater(
      LogPriority::DEBUG,
      LogBuilder(label::PERFORM_PERIODIC_UPDATE, nullptr).d(key::ENDPOINT_COUNT, endpoints.size()));
  const std::string requestId = requestIdPrefix::PERIODIC + generateRequestId();

  // Views of the provider's ids: `endpoints` outlives the sweep.
  Arena arena;
  CacheCore::EndpointIdSet currentEndpointIds{CacheCore::EndpointIdSet::allocator_type(arena)};
  currentEndpointIds.reserve(endpoints.size());
  for (const EndpointInfo& endpoint : endpoints) {
    currentEndpointIds.insert(endpoint.endpointId);
  }
  {
    const ChangeOriginScope sweep(ChangeOrigin::SWEEP);
    removeStaleEntries(currentEndpointIds);
  }

  if (!startCheck(endpoints, requestId, ChangeOrigin::PERIODIC_CHECK)) {
    logUpdater(LogPriority::ERROR, LogBuilder(label::PERFORM_PERIODIC_UPDATE, nullptr)
                                       .d(key::REQUEST_ID, requestId.c_str())
                                       .d(key::REASON, reason::CHECK_START_FAILED));
    ReachabilityCacheMetrics::emitCheckFailed(ReachabilityCacheMetrics::UpdateType::PERIODIC,
                                              reason::CHECK_START_FAILED);
  }
  rearmPeriodicUpdate();
}

void ReachabilityUpdater::removeStaleEntries(const CacheCore::EndpointIdSet& currentEndpointIds) {
  // In the order of a copy of the index, as if the sweep walked one; without
  // making it.
  for (const auto& [endpointId, entityId] : cache->getEndpointsNotNamed(currentEndpointIds)) {
    cache->removeEndpoint(entityId, endpointId);
  }
}

// ---- Manual trigger ----

void ReachabilityUpdater::triggerUpdate(const std::vector<EndpointInfo>& endpoints) {
  taskExecutor->post([this, endpoints] { performManualUpdate(endpoints); });
}

void ReachabilityUpdater::performManualUpdate(const std::vector<EndpointInfo>& endpoints) {
  if (endpoints.empty()) {
    logUpdater(
        LogPriority::DEBUG,
        LogBuilder(LAMBDA_FUNCTION, label::MANUAL_TRIGGER).d(key::REASON, reason::NO_ENDPOINTS));
    return;
  }
  const std::string requestId = requestIdPrefix::MANUAL + generateRequestId();
  if (!startCheck(endpoints, requestId, ChangeOrigin::MANUAL_CHECK)) {
    logUpdater(LogPriority::ERROR, LogBuilder(LAMBDA_FUNCTION, label::MANUAL_TRIGGER)
                                       .d(key::REQUEST_ID, requestId.c_str())
                                       .d(key::REASON, reason::CHECK_START_FAILED));
    ReachabilityCacheMetrics::emitCheckFailed(ReachabilityCacheMetrics::UpdateType::MANUAL,
                                              reason::CHECK_START_FAILED);
  }
}

bool ReachabilityUpdater::startCheck(const std::vector<EndpointInfo>& endpoints,
                                     const std::string& requestId, ChangeOrigin origin) {
  // Counted before the call: the checker may answer before it returns.
  ++checksRequested_;
  // Without a checker no check can start.
  const bool started = checker != nullptr &&
                       checker->checkReachability(
                           endpoints, requestId,
                           [this, origin](const std::vector<ReachabilityCheckResult>& results) {
                             {
                               const ChangeOriginScope scope(origin);
                               processReachabilityResults(results);
                             }
                             countAnswer(origin);
                           });
  if (!started) {
    ++checksRefused_;
  }
  return started;
}

void ReachabilityUpdater::countAnswer(ChangeOrigin origin) {
  ++checksAnswered_;
  if (origin == ChangeOrigin::PERIODIC_CHECK) {
    lastCycleAnsweredAt_ = std::chrono::steady_clock::now().time_since_epoch().count();
    ++cyclesAnswered_;
  }
}

ReachabilityCacheHealth ReachabilityUpdater::health() const {
  ReachabilityCacheHealth health;
  health.hearsConnectivityEvents = proactiveUpdatesEnabled;
  // Answers first and requests last: a check is requested before it is
  // answered, so no check shows as answered and not started.
  health.cyclesAnswered = cyclesAnswered_;
  health.lastCycleAnsweredAt = std::chrono::steady_clock::time_point(
      std::chrono::steady_clock::duration(lastCycleAnsweredAt_.load()));
  health.checksAnswered = checksAnswered_;
  health.checksNotStarted = checksRefused_;
  health.checksStarted = checksRequested_ - health.checksNotStarted;
  return health;
}

// ---- Result processing ----

void ReachabilityUpdater::processReachabilityResults(
    const std::vector<ReachabilityCheckResult>& results) {
  unsigned int reachableCount = 0;
  unsigned int unreachableCount = 0;
  unsigned int changedCount = 0;
  std::string details;
  for (const ReachabilityCheckResult& result : results) {
    // Followers learn that the entity was judged, also when nothing changes.
    cache->changeFeed().record(CacheCore::normalizeEntityId(result.entityId));
    const bool wasReachable = cache->isEntityReachable(result.entityId);
    bool applied = false;
    if (result.isReachable) {
      applied = processReachableEndpoint(result, wasReachable);
      reachableCount += applied ? 1 : 0;
      changedCount += applied && !wasReachable ? 1 : 0;
    } else {
      applied = processUnreachableEndpoint(result, wasReachable);
      unreachableCount += applied ? 1 : 0;
      changedCount += applied && wasReachable ? 1 : 0;
    }
    appendDetail(details, result, statusText(result.isReachable, applied, wasReachable));
  }
  logUpdater(LogPriority::INFO,
             LogBuilder(label::PROCESS_REACHABILITY_RESULTS, label::PROCESS_REACHABILITY_RESULTS)
                 .d(key::REACHABLE, reachableCount)
                 .d(key::UNREACHABLE, unreachableCount)
                 .d(key::CHANGED, changedCount)
                 .d(key::DETAILS, details.c_str()));
}

bool ReachabilityUpdater::processReachableEndpoint(const ReachabilityCheckResult& result,
                                                   bool wasReachable) {
  // The record the store takes, built only where the store keeps it.
  const bool inserted =
      cache->insertEndpoint(result.endpointId, result.entityId, result.adapterName,
                            result.driverType, result.capabilities);
  if (inserted && !wasReachable) {
    cache->notifyReachabilityListeners(result.endpointId, result.entityId, true);
  }
  return inserted;
}

bool ReachabilityUpdater::processUnreachableEndpoint(const ReachabilityCheckResult& result,
                                                     bool wasReachable) {
  if (!wasReachable) {
    return true;
  }
  if (!cache->clearEndpointCapabilities(result.entityId, result.endpointId)) {
    return false;
  }
  cache->notifyReachabilityListeners(result.endpointId, result.entityId, false);
  return true;
}

// ---- Proactive updates ----

bool ReachabilityUpdater::enableProactiveUpdates() {
  MutexLock lock(mutex);
  if (proactiveUpdatesEnabled) {
    logUpdater(LogPriority::DEBUG, LogBuilder(label::ENABLE_PROACTIVE_UPDATES, nullptr)
                                       .d(key::ACTION, action::ENABLE_PROACTIVE_UPDATES)
                                       .d(key::REASON, reason::ALREADY_ENABLED));
    return true;
  }
  proactiveCallbackId = requestIdPrefix::PROACTIVE + generateRequestId();
  const bool registered =
      checker != nullptr &&
      checker->registerReachabilityUpdateCallback(
          proactiveCallbackId, [this](const ReachabilityCheckResult& result) {
            taskExecutor->post([this, result] { handleProactiveUpdate(result); });
          });
  if (!registered) {
    logUpdater(LogPriority::ERROR, LogBuilder(label::ENABLE_PROACTIVE_UPDATES, nullptr)
                                       .d(key::ACTION, action::ENABLE_PROACTIVE_UPDATES)
                                       .d(key::REASON, reason::REGISTRATION_FAILED));
    ReachabilityCacheMetrics::emitSubscribeFailed(ReachabilityCacheMetrics::SubscribeAction::ENABLE,
                                                  reason::REGISTRATION_FAILED);
    return false;
  }
  proactiveUpdatesEnabled = true;
  logUpdater(LogPriority::INFO, LogBuilder(label::ENABLE_PROACTIVE_UPDATES, nullptr)
                                    .d(key::ACTION, action::ENABLE_PROACTIVE_UPDATES)
                                    .d(key::CALLBACK_ID, proactiveCallbackId.c_str()));
  return true;
}

void ReachabilityUpdater::disableProactiveUpdates() {
  MutexLock lock(mutex);
  if (!proactiveUpdatesEnabled) {
    logUpdater(LogPriority::DEBUG, LogBuilder(label::DISABLE_PROACTIVE_UPDATES, nullptr)
                                       .d(key::ACTION, action::DISABLE_PROACTIVE_UPDATES)
                                       .d(key::REASON, reason::ALREADY_DISABLED));
    return;
  }
  checker->unregisterReachabilityUpdateCallback(proactiveCallbackId);
  proactiveUpdatesEnabled = false;
  proactiveCallbackId.clear();
  logUpdater(LogPriority::INFO, LogBuilder(label::DISABLE_PROACTIVE_UPDATES, nullptr)
                                    .d(key::ACTION, action::DISABLE_PROACTIVE_UPDATES)
                                    .d(key::STATUS, status::DISABLED));
}

bool ReachabilityUpdater::isProactiveUpdatesEnabled() const { return proactiveUpdatesEnabled; }

void ReachabilityUpdater::handleProactiveUpdate(const ReachabilityCheckResult& result) {
  const ChangeOriginScope scope(ChangeOrigin::CONNECTIVITY_EVENT);
  std::vector<ReachabilityCheckResult> results{result};
  if (result.entityId.empty() && !result.endpointId.empty()) {
    std::string entityId = cache->getEntityIdForEndpoint(result.endpointId);
    if (!entityId.empty()) {
      results.front().entityId = std::move(entityId);
    }
  }
  processReachabilityResults(results);
}

}  // namespace veranda::reachabilityCache
