#include "owner/ConnectivityTap.h"

#include <utility>

namespace veranda::reachabilityCache {

ConnectivityTap::ConnectivityTap(std::shared_ptr<IReachabilityChecker> checker)
    : handler_(std::make_shared<Handler>()), checker_(std::move(checker)) {}

void ConnectivityTap::attach(EventHandler handler) {
  MutexLock lock(handler_->mutex);
  handler_->handle = std::move(handler);
}

void ConnectivityTap::detach() {
  EventHandler released;  // destroyed after the lock
  MutexLock lock(handler_->mutex);
  released = std::move(handler_->handle);
  handler_->handle = nullptr;
}

bool ConnectivityTap::checkReachability(const std::vector<EndpointInfo>& endpoints,
                                        const std::string& requestId, ResultsCallback callback) {
  return checker_->checkReachability(endpoints, requestId, std::move(callback));
}

bool ConnectivityTap::registerReachabilityUpdateCallback(const std::string& callbackId,
                                                         UpdateCallback callback) {
  // An empty callback stays empty, so that the checker refuses it as usual.
  UpdateCallback tapped;
  if (callback) {
    tapped = [handler = handler_,
              callback = std::move(callback)](const ReachabilityCheckResult& result) {
      callback(result);
      MutexLock lock(handler->mutex);
      if (handler->handle) {
        handler->handle(result);
      }
    };
  }
  return checker_->registerReachabilityUpdateCallback(callbackId, std::move(tapped));
}

bool ConnectivityTap::unregisterReachabilityUpdateCallback(const std::string& callbackId) {
  return checker_->unregisterReachabilityUpdateCallback(callbackId);
}

}  // namespace veranda::reachabilityCache
