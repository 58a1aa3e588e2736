// Which entities the store's changes touched, for followers that judge only
// those, and the end of the cache that owns the store.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <unordered_map>
#include <vector>

#include "store/ChangeOrigin.h"
#include "sync/Mutex.h"

namespace veranda::reachabilityCache {

// Keeps, per subscriber, every entity that a change touched since the
// subscriber last took them, each with the origin of the latest such change.
// An entity whose reachability changed has always been touched; one that was
// touched may have kept its reachability. Without subscribers, recording
// costs one atomic load.
//
// Thread safety: every member may be called from any thread. The store
// records with its own lock held; the feed's lock is taken after every other
// lock of the library and never held while calling out.
class ChangeFeed {
 public:
  using SubscriberId = uint64_t;
  // Normalised entity id -> origin of the latest change that touched it.
  using Touches = std::unordered_map<std::string, ChangeOrigin>;

  ChangeFeed() = default;
  ChangeFeed(const ChangeFeed&) = delete;
  ChangeFeed& operator=(const ChangeFeed&) = delete;

  // Starts recording for a new subscriber. `onCacheDestroyed` runs at most
  // once, on the thread that destroys the cache, if that happens while the
  // subscription lasts; it may be empty.
  SubscriberId subscribe(std::function<void()> onCacheDestroyed) RC_EXCLUDES(mutex_);
  // Ends the subscription; unknown ids are ignored. A call of its
  // onCacheDestroyed already under way on another thread is not waited for.
  void unsubscribe(SubscriberId id) RC_EXCLUDES(mutex_);

  // Records that a change touched the entity (its normalised id), with the
  // calling thread's current origin. Empty ids are ignored.
  void record(const std::string& entityId) RC_EXCLUDES(mutex_);
  // Everything recorded for the subscriber since its last take(); empty for
  // an unknown id.
  Touches take(SubscriberId id) RC_EXCLUDES(mutex_);

  // Called once by the cache as its destruction starts: runs every
  // subscriber's onCacheDestroyed, outside the feed's lock.
  void cacheDestroyed() RC_EXCLUDES(mutex_);

 private:
  struct Subscriber {
    SubscriberId id;
    Touches touches;
    std::function<void()> onCacheDestroyed;
  };

  mutable Mutex mutex_;
  std::vector<Subscriber> subscribers_ RC_GUARDED_BY(mutex_);
  SubscriberId lastId_ RC_GUARDED_BY(mutex_) = 0;
  // The size of subscribers_, read without the lock by record().
  std::atomic<std::size_t> subscriberCount_{0};
};

}  // namespace veranda::reachabilityCache
