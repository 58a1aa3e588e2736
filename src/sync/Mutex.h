// The annotated mutex that the library's classes use, and its scoped holder.
#pragma once

#include <mutex>

#include "sync/SpinWait.h"
#include "sync/ThreadAnnotations.h"

namespace veranda::reachabilityCache {

// A non-recursive mutex that the thread-safety analysis understands.
//
// lock() retries for up to LOCK_SPIN_TIME before it parks. A waiter that
// parks at once pays a sleep and a wake-up, and the holder a system call to
// wake it, for a mutex that is free again a few hundred nanoseconds later;
// meanwhile the holder takes the mutex back, so that two threads taking it in
// turn got less done together than one alone.
//
// Built on std::mutex, so that ThreadSanitizer sees every acquisition.
class RC_CAPABILITY("mutex") Mutex {
 public:
  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void lock() RC_ACQUIRE() {
    if (!mutex_.try_lock() && !spinUntil([this] { return mutex_.try_lock(); })) {
      mutex_.lock();
    }
  }
  void unlock() RC_RELEASE() { mutex_.unlock(); }

 private:
  std::mutex mutex_;
};

// Holds a Mutex for the lifetime of the scope.
class RC_SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) RC_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~MutexLock() RC_RELEASE() { mutex_.unlock(); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  Mutex& mutex_;
};

// Holds a Mutex for the lifetime of the scope, except between unlock() and
// lock(): for a scope that lets go of the mutex around a call, or that waits
// on a std::condition_variable_any. Leaving the scope releases the mutex only
// if held, so that an exception thrown while it is let go leaves it free.
class RC_SCOPED_CAPABILITY RelockableMutexLock {
 public:
  explicit RelockableMutexLock(Mutex& mutex) RC_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~RelockableMutexLock() RC_RELEASE() {
    if (held_) {
      mutex_.unlock();
    }
  }
  RelockableMutexLock(const RelockableMutexLock&) = delete;
  RelockableMutexLock& operator=(const RelockableMutexLock&) = delete;

  void lock() RC_ACQUIRE() {
    mutex_.lock();
    held_ = true;
  }
  void unlock() RC_RELEASE() {
    held_ = false;
    mutex_.unlock();
  }

 private:
  Mutex& mutex_;
  bool held_ = true;
};

}  // namespace veranda::reachabilityCache
