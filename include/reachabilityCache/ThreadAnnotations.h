// Lock annotations for clang's -Wthread-safety analysis, and the annotated
// mutex that the library's classes use. The macros vanish on other compilers.
#pragma once

#include <mutex>

#if defined(__clang__)
#define RC_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define RC_THREAD_ANNOTATION(x)
#endif

#define RC_CAPABILITY(name) RC_THREAD_ANNOTATION(capability(name))
#define RC_SCOPED_CAPABILITY RC_THREAD_ANNOTATION(scoped_lockable)
#define RC_GUARDED_BY(mutex) RC_THREAD_ANNOTATION(guarded_by(mutex))
#define RC_REQUIRES(...) RC_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define RC_EXCLUDES(...) RC_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define RC_ACQUIRE(...) RC_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define RC_RELEASE(...) RC_THREAD_ANNOTATION(release_capability(__VA_ARGS__))

namespace veranda::reachabilityCache {

// A non-recursive mutex that the thread-safety analysis understands.
class RC_CAPABILITY("mutex") Mutex {
 public:
  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void lock() RC_ACQUIRE() { mutex_.lock(); }
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

}  // namespace veranda::reachabilityCache
