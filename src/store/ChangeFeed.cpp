#include "store/ChangeFeed.h"

#include <algorithm>
#include <utility>

namespace veranda::reachabilityCache {

ChangeFeed::SubscriberId ChangeFeed::subscribe(std::function<void()> onCacheDestroyed) {
  MutexLock lock(mutex_);
  const SubscriberId id = ++lastId_;
  subscribers_.push_back({id, {}, std::move(onCacheDestroyed)});
  subscriberCount_.store(subscribers_.size(), std::memory_order_release);
  return id;
}

void ChangeFeed::unsubscribe(SubscriberId id) {
  std::vector<Subscriber> removed;  // its hook's captures go after the lock
  MutexLock lock(mutex_);
  const auto found =
      std::find_if(subscribers_.begin(), subscribers_.end(),
                   [id](const Subscriber& subscriber) { return subscriber.id == id; });
  if (found == subscribers_.end()) {
    return;
  }
  removed.push_back(std::move(*found));
  subscribers_.erase(found);
  subscriberCount_.store(subscribers_.size(), std::memory_order_release);
}

void ChangeFeed::record(const std::string& entityId) {
  if (subscriberCount_.load(std::memory_order_acquire) == 0 || entityId.empty()) {
    return;
  }
  const ChangeOrigin origin = currentChangeOrigin();
  MutexLock lock(mutex_);
  for (Subscriber& subscriber : subscribers_) {
    subscriber.touches.insert_or_assign(entityId, origin);
  }
}

ChangeFeed::Touches ChangeFeed::take(SubscriberId id) {
  Touches taken;
  MutexLock lock(mutex_);
  for (Subscriber& subscriber : subscribers_) {
    if (subscriber.id == id) {
      taken.swap(subscriber.touches);
      break;
    }
  }
  return taken;
}

void ChangeFeed::cacheDestroyed() {
  std::vector<std::function<void()>> hooks;
  {
    MutexLock lock(mutex_);
    for (Subscriber& subscriber : subscribers_) {
      if (subscriber.onCacheDestroyed) {
        hooks.push_back(std::move(subscriber.onCacheDestroyed));
        subscriber.onCacheDestroyed = nullptr;
      }
    }
  }
  for (const auto& hook : hooks) {
    hook();
  }
}

}  // namespace veranda::reachabilityCache
