// Lets callbacks through until it is closed, and lets the closer wait for the
// callbacks that are still running.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <thread>
#include <unordered_map>
#include <unordered_set>

#include "sync/Mutex.h"

namespace veranda::reachabilityCache {

// A callback holds a Pass while it runs; close() refuses every later Pass and
// returns once no Pass is held on another thread. Passes held by the closing
// thread itself (close() called from inside a callback) are not waited for,
// and a closer inside a callback does not wait for other callbacks that are
// themselves inside close(): callbacks closing the gate at once never wait
// for one another. A closer outside every callback waits for all of them.
//
// Thread safety: every member may be called from any thread.
class CallbackGate {
 public:
  // Admits one callback for the lifetime of the Pass, unless the gate is
  // closed; test it before running the callback.
  class Pass {
   public:
    explicit Pass(CallbackGate& gate);
    ~Pass();
    Pass(const Pass&) = delete;
    Pass& operator=(const Pass&) = delete;

    explicit operator bool() const { return gate_ != nullptr; }

   private:
    CallbackGate* gate_;
  };

  CallbackGate() = default;
  CallbackGate(const CallbackGate&) = delete;
  CallbackGate& operator=(const CallbackGate&) = delete;

  // Refuses every later Pass, then waits as the class comment says.
  // Idempotent.
  void close() RC_EXCLUDES(mutex_);
  bool isClosed() const RC_EXCLUDES(mutex_);

 private:
  bool enter() RC_EXCLUDES(mutex_);
  void leave() RC_EXCLUDES(mutex_);
  // The Passes held that a closer on `self` must wait for.
  std::size_t blockingPassesLocked(std::thread::id self, bool selfInside) const RC_REQUIRES(mutex_);

  mutable Mutex mutex_;
  std::condition_variable_any changed_;
  bool closed_ RC_GUARDED_BY(mutex_) = false;
  std::unordered_map<std::thread::id, std::size_t> passesByThread_ RC_GUARDED_BY(mutex_);
  // Threads inside close() that hold a Pass.
  std::unordered_set<std::thread::id> closingInside_ RC_GUARDED_BY(mutex_);
};

}  // namespace veranda::reachabilityCache
