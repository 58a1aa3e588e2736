// The listener table of CacheCore, guarded by the listener mutex alone.
#include "store/CacheCore.h"

#include <memory>
#include <utility>

#include "diagnostics/ComponentLog.h"
#include "diagnostics/LogBuilder.h"
#include "diagnostics/LogSchema.h"

namespace veranda::reachabilityCache {

using namespace logSchema;

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
    logStore(LogPriority::WARN, LogBuilder(label::REGISTER_REACHABILITY_LISTENER, nullptr)
                                    .d(key::ACTION, action::REGISTER_REACHABILITY_LISTENER)
                                    .d(key::LISTENER_ID, listenerId.c_str())
                                    .d(key::RESULT, result::ALREADY_EXISTS));
    return false;
  }
  logStore(LogPriority::INFO, LogBuilder(label::REGISTER_REACHABILITY_LISTENER, nullptr)
                                  .d(key::ACTION, action::REGISTER_REACHABILITY_LISTENER)
                                  .d(key::LISTENER_ID, listenerId.c_str())
                                  .d(key::RESULT, result::SUCCESS)
                                  .d(key::TOTAL_LISTENERS, listeners.size()));
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
    logStore(LogPriority::WARN, LogBuilder(label::UNREGISTER_REACHABILITY_LISTENER, nullptr)
                                    .d(key::ACTION, action::UNREGISTER_REACHABILITY_LISTENER)
                                    .d(key::LISTENER_ID, listenerId.c_str())
                                    .d(key::RESULT, result::NOT_FOUND));
    return false;
  }
  removed = listeners.extract(found);
  logStore(LogPriority::INFO, LogBuilder(label::UNREGISTER_REACHABILITY_LISTENER, nullptr)
                                  .d(key::ACTION, action::UNREGISTER_REACHABILITY_LISTENER)
                                  .d(key::LISTENER_ID, listenerId.c_str())
                                  .d(key::RESULT, result::SUCCESS)
                                  .d(key::TOTAL_LISTENERS, listeners.size()));
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
  logStore(LogPriority::DEBUG, LogBuilder(label::NOTIFY_REACHABILITY_LISTENERS, nullptr)
                                   .d(key::ACTION, action::NOTIFY_REACHABILITY_LISTENERS)
                                   .d(key::ENDPOINT_ID, endpointId.c_str())
                                   .d(key::ENTITY_ID, entityId.c_str())
                                   .d(key::IS_REACHABLE, boolText(isReachable))
                                   .d(key::LISTENER_COUNT, snapshot->size()));
  // What a listener changes is the listener's own doing, whatever caused the
  // notification.
  const ChangeOriginScope origin(ChangeOrigin::HOST);
  for (const auto& entry : *snapshot) {
    // Each call on a copy of its own, as on a copy of the table made now.
    const ReachabilityListener listener = entry.second;
    listener(endpointId, entityId, isReachable);
  }
}

}  // namespace veranda::reachabilityCache
