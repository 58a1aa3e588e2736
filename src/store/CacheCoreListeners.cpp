// The listener table of CacheCore, guarded by the listener mutex alone.
#include "store/CacheCore.h"

#include <memory>
#include <utility>

#include "diagnostics/ComponentLog.h"
#include "diagnostics/LogBuilder.h"

namespace veranda::reachabilityCache {

using commonLog::LogBuilder;

bool CacheCore::registerReachabilityListener(
    const std::string& listenerId,
    // NOLINTNEXTLINE(performance-unnecessary-value-param): the table takes ownership.
    ReachabilityListener callback) {
  // Declared before the lock so that the replaced copies of the callbacks are
  // destroyed after the lock is released.
  std::shared_ptr<const ListenerTable> previousSnapshot;
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
  previousSnapshot =
      std::exchange(listenerSnapshot, std::make_shared<const ListenerTable>(listeners));
  return true;
}

bool CacheCore::unregisterReachabilityListener(const std::string& listenerId) {
  // Declared before the lock so that the callback's captures are destroyed
  // after the lock is released.
  ListenerTable::node_type removed;
  std::shared_ptr<const ListenerTable> previousSnapshot;
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
  previousSnapshot =
      std::exchange(listenerSnapshot, std::make_shared<const ListenerTable>(listeners));
  return true;
}

void CacheCore::notifyReachabilityListeners(const std::string& endpointId,
                                            const std::string& entityId, bool isReachable) {
  std::shared_ptr<const ListenerTable> snapshot;
  {
    MutexLock lock(listenerMutex);
    snapshot = listenerSnapshot;
  }
  if (snapshot == nullptr || snapshot->empty()) {
    return;
  }
  logStore(LogPriority::DEBUG, LogBuilder("notifyReachabilityListeners", nullptr)
                                   .d("action", "notifyReachabilityListeners")
                                   .d("endpointId", endpointId.c_str())
                                   .d("entityId", entityId.c_str())
                                   .d("isReachable", boolText(isReachable))
                                   .d("listenerCount", snapshot->size()));
  for (const auto& entry : *snapshot) {
    // Each call on a copy of its own, as on a copy of the table made now.
    const ReachabilityListener listener = entry.second;
    listener(endpointId, entityId, isReachable);
  }
}

}  // namespace veranda::reachabilityCache
