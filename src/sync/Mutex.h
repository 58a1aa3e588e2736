// The annotated mutex that the library's classes use, and its scoped holder.
#pragma once

#include <chrono>
#include <mutex>

#include "sync/ThreadAnnotations.h"

namespace veranda::reachabilityCache {

// A non-recursive mutex that the thread-safety analysis understands.
//
// lock() retries for a short while before it parks. The library's critical
// sections are short: a query holds the store mutex for under a microsecond,
// a step of a cycle for one or two. A waiter that parks at once pays a sleep
// and a wake-up, and the holder a system call to wake it, for a mutex that was
// free again a few hundred nanoseconds later; meanwhile the holder takes the
// mutex back, so that two threads asking the store at once got less done
// together than one alone. A waiter retries with the processor's spin-wait
// hint between attempts for up to SPIN_TIME, then parks. Measured on the
// benchmark machine, 99.6 % of the store's sections end within 2 us and
// almost none last from 4 to 16 us; 8 us covers what is left of one section
// plus one lost race, with room for cores three times slower. A holder still
// busy by then is in a long section (the stale sweep's copy of the index) or
// lost its core, and spinning on would only take a core from it.
//
// Built on std::mutex, so that ThreadSanitizer sees every acquisition.
class RC_CAPABILITY("mutex") Mutex {
 public:
  // How long lock() retries before it parks (the measurement that chose it
  // is in BENCHMARKS.md, under the notes).
  static constexpr std::chrono::nanoseconds SPIN_TIME{8000};

  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void lock() RC_ACQUIRE() {
    if (!mutex_.try_lock()) {
      spinThenLock();
    }
  }
  void unlock() RC_RELEASE() { mutex_.unlock(); }

 private:
  // Attempts between two looks at the clock: a look costs about as much as an
  // attempt.
  static constexpr int ATTEMPTS_PER_CLOCK_READ = 8;

  // Tells the processor that this thread is spinning (x86 "pause", arm
  // "yield"): it lets the other hardware thread of the core run and saves
  // power, and on x86 avoids the pipeline flush when the wait ends.
  static void spinWaitHint() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__) || defined(__arm__)
    asm volatile("yield" ::: "memory");
#endif
  }

  void spinThenLock() {
    const auto deadline = std::chrono::steady_clock::now() + SPIN_TIME;
    do {
      for (int attempt = 0; attempt < ATTEMPTS_PER_CLOCK_READ; ++attempt) {
        spinWaitHint();
        if (mutex_.try_lock()) {
          return;
        }
      }
    } while (std::chrono::steady_clock::now() < deadline);
    mutex_.lock();
  }

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
