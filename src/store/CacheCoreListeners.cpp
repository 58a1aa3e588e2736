// The listener table of CacheCore, guarded by the listener mutex alone.
#include "store/CacheCore.h"

#include <utility>

#include "diagnostics/ComponentLog.h"
#include "diagnostics/LogBuilder.h"

namespace veranda::reachabilityCache {

using commonLog::LogBuilder;

bool CacheCore::registerReachabilityListener(
    const std::string& listenerId,
    // NOLINTNEXTLINE(performance-unnecessary-value-param): the table takes ownership.
    ReachabilityListener callback) {
  MutexLock lock(listenerMutex);
  // try_emplace leaves `callback` untouched when the id is taken.
  if (!listeners.try_emplace(listenerId, std::move(callback)).second) {
    logStore(LogPriority::WARN, LogBuilder("registerReachabilityListener", nullptr)
                                    .d("action", "registerReachabilityListener")
                                    .d("listenerId", listenerId.c_str())
                                    .d("result", "alreadyExists"));
    return false;
  }
  logStore(LogPriority::INFO, LogBuilder("registerReachabilityListener", nullptr)
                                  .d("action", "registerReachabilityListener")
                                  .d("listenerId", listenerId.c_str())
                                  .d("result", "success")
                                  .d("totalListeners", listeners.size()));
  return true;
}

bool CacheCore::unregisterReachabilityListener(const std::string& listenerId) {
  // Declared before the lock so that the callback's captures are destroyed
  // after the lock is released.
  std::unordered_map<std::string, ReachabilityListener>::node_type removed;
  MutexLock lock(listenerMutex);
  const auto found = listeners.find(listenerId);
  if (found == listeners.end()) {
    logStore(LogPriority::WARN, LogBuilder("unregisterReachabilityListener", nullptr)
                                    .d("action", "unregisterReachabilityListener")
                                    .d("listenerId", listenerId.c_str())
                                    .d("result", "notFound"));
    return false;
  }
  removed = listeners.extract(found);
  logStore(LogPriority::INFO, LogBuilder("unregisterReachabilityListener", nullptr)
                                  .d("action", "unregisterReachabilityListener")
                                  .d("listenerId", listenerId.c_str())
                                  .d("result", "success")
                                  .d("totalListeners", listeners.size()));
  return true;
}

void CacheCore::notifyReachabilityListeners(const std::string& endpointId,
                                            const std::string& entityId, bool isReachable) {
  std::unordered_map<std::string, ReachabilityListener> snapshot;
  {
    MutexLock lock(listenerMutex);
    snapshot = listeners;
  }
  if (snapshot.empty()) {
    return;
  }
  logStore(LogPriority::DEBUG, LogBuilder("notifyReachabilityListeners", nullptr)
                                   .d("action", "notifyReachabilityListeners")
                                   .d("endpointId", endpointId.c_str())
                                   .d("entityId", entityId.c_str())
                                   .d("isReachable", boolText(isReachable))
                                   .d("listenerCount", snapshot.size()));
  // What a listener changes is the listener's own doing, whatever caused the
  // notification.
  const ChangeOriginScope origin(ChangeOrigin::HOST);
  for (const auto& entry : snapshot) {
    entry.second(endpointId, entityId, isReachable);
  }
}

}  // namespace veranda::reachabilityCache
