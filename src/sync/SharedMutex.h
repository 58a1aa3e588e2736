// A reader-writer lock whose readers do not contend with one another, and its
// scoped holders.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>

#include "sync/SpinWait.h"
#include "sync/ThreadAnnotations.h"

#if defined(__SANITIZE_THREAD__)
#define RC_TSAN_MUTEX_ANNOTATIONS 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define RC_TSAN_MUTEX_ANNOTATIONS 1
#endif
#endif
#if defined(RC_TSAN_MUTEX_ANNOTATIONS)
#include <sanitizer/tsan_interface.h>
#endif

namespace veranda::reachabilityCache {

// A non-recursive reader-writer lock that prefers writers: any number of
// threads hold it shared, or one holds it exclusively. Once a writer asks,
// readers that arrive wait until it is done, so that a stream of readers never
// keeps a writer out for longer than the readers already inside take to leave.
//
// Why not the platform's reader-writer locks:
// - std::shared_mutex in glibc's libstdc++ is a pthread_rwlock_t with the
//   default attributes, which prefer readers: a steady stream of queries
//   keeps a writer out indefinitely.
// - std::shared_mutex in libc++ (Android's C++ library) is a std::mutex and
//   two condition variables: every lock_shared() and unlock_shared() takes
//   that mutex, so readers contend on it as on an exclusive lock.
// - pthread_rwlock_t, in glibc and in bionic (Android's C library, API 23 and
//   later), can prefer writers (PTHREAD_RWLOCK_PREFER_WRITER_NONRECURSIVE_NP)
//   and takes readers with one atomic operation on the lock word, without a
//   mutex. But every reader then writes that one cache line twice per hold,
//   and on two cores moving the line between them costs a good part of a
//   query of 200 to 300 ns: two threads' queries still serialise on it.
// Here each reader counts itself in a slot on a cache line of its own (one
// slot per thread, while threads are fewer than slots), and reads the
// writer's flag, which stays in every core's cache while no writer comes. A
// writer raises the flag, then waits until every slot is empty. Readers and
// writers that must wait spin for up to LOCK_SPIN_TIME, then park on a
// condition variable; whoever releases the lock wakes parked threads only
// when there are some. The same code runs on every C library.
//
// ThreadSanitizer: the lock is built on sequentially consistent atomics, whose
// happens-before edges ThreadSanitizer follows, and it reports itself to
// ThreadSanitizer as a reader-writer mutex, so that races and lock-order
// inversions name it.
//
// Thread safety: every member may be called from any thread; a thread
// releases what it holds itself. Neither mode may be taken recursively.
class RC_CAPABILITY("mutex") SharedMutex {
 public:
  SharedMutex();
  ~SharedMutex();
  SharedMutex(const SharedMutex&) = delete;
  SharedMutex& operator=(const SharedMutex&) = delete;

  void lock() RC_ACQUIRE();
  void unlock() RC_RELEASE();
  void lock_shared() RC_ACQUIRE_SHARED();    // NOLINT(readability-identifier-naming): Lockable.
  void unlock_shared() RC_RELEASE_SHARED();  // NOLINT(readability-identifier-naming): Lockable.

  // True while a writer holds the lock or waits for readers to leave. A
  // snapshot, for tests and diagnostics.
  bool hasWriter() const { return writer_.load() != 0; }

 private:
  // Readers counted in one slot, alone on a cache line (64 bytes on the x86
  // and Arm cores the library runs on).
  struct alignas(64) ReaderSlot {
    std::atomic<uint32_t> readers{0};
  };
  static constexpr std::size_t READER_SLOTS = 16;

  // The calling thread's slot: threads take slots in turn as they first read.
  static std::size_t slotOfThisThread();

  void leaveSlot(ReaderSlot& slot);
  void acquireWriterFlag();
  void waitForReadersToLeave();
  // Spins, then parks, until `ready` returns true.
  template <typename Ready>
  void waitUntil(Ready ready);
  void wakeParked();

  // 1 while a writer holds the lock or waits for readers to leave.
  std::atomic<uint32_t> writer_{0};
  // Threads parked on wakeup_, or about to park.
  std::atomic<uint32_t> parked_{0};
  const std::unique_ptr<ReaderSlot[]> slots_;
  std::mutex parkMutex_;
  std::condition_variable wakeup_;
};

// Holds a SharedMutex exclusively for the lifetime of the scope.
class RC_SCOPED_CAPABILITY WriterLock {
 public:
  explicit WriterLock(SharedMutex& mutex) RC_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~WriterLock() RC_RELEASE() { mutex_.unlock(); }
  WriterLock(const WriterLock&) = delete;
  WriterLock& operator=(const WriterLock&) = delete;

 private:
  SharedMutex& mutex_;
};

// Holds a SharedMutex shared for the lifetime of the scope.
class RC_SCOPED_CAPABILITY ReaderLock {
 public:
  explicit ReaderLock(SharedMutex& mutex) RC_ACQUIRE_SHARED(mutex) : mutex_(mutex) {
    mutex_.lock_shared();
  }
  ~ReaderLock() RC_RELEASE() { mutex_.unlock_shared(); }
  ReaderLock(const ReaderLock&) = delete;
  ReaderLock& operator=(const ReaderLock&) = delete;

 private:
  SharedMutex& mutex_;
};

// ---- Implementation ----
//
// Every access to writer_, parked_ and the slots is sequentially consistent:
// a reader's increment of its slot and a writer's raising of the flag are
// each followed by a load of the other's variable, and one of the two must
// see the other's store (the same holds between a waiter counting itself in
// parked_ and a releaser reading it).

#if defined(RC_TSAN_MUTEX_ANNOTATIONS)
#define RC_TSAN_MUTEX(call) call
#else
#define RC_TSAN_MUTEX(call) static_cast<void>(0)
#endif

inline SharedMutex::SharedMutex() : slots_(new ReaderSlot[READER_SLOTS]) {
  RC_TSAN_MUTEX(__tsan_mutex_create(this, 0));
}

inline SharedMutex::~SharedMutex() { RC_TSAN_MUTEX(__tsan_mutex_destroy(this, 0)); }

inline std::size_t SharedMutex::slotOfThisThread() {
  static std::atomic<std::size_t> threadsSeen{0};
  thread_local std::size_t slot = threadsSeen.fetch_add(1) % READER_SLOTS;
  return slot;
}

inline void SharedMutex::lock_shared() {
  RC_TSAN_MUTEX(__tsan_mutex_pre_lock(this, __tsan_mutex_read_lock));
  ReaderSlot& slot = slots_[slotOfThisThread()];
  slot.readers.fetch_add(1);
  while (writer_.load() != 0) {
    // Gives way to the writer, and waits until it is done.
    leaveSlot(slot);
    waitUntil([this] { return writer_.load() == 0; });
    slot.readers.fetch_add(1);
  }
  RC_TSAN_MUTEX(__tsan_mutex_post_lock(this, __tsan_mutex_read_lock, 0));
}

inline void SharedMutex::unlock_shared() {
  RC_TSAN_MUTEX(__tsan_mutex_pre_unlock(this, __tsan_mutex_read_lock));
  leaveSlot(slots_[slotOfThisThread()]);
  RC_TSAN_MUTEX(__tsan_mutex_post_unlock(this, __tsan_mutex_read_lock));
}

inline void SharedMutex::lock() {
  RC_TSAN_MUTEX(__tsan_mutex_pre_lock(this, 0));
  acquireWriterFlag();
  waitForReadersToLeave();
  RC_TSAN_MUTEX(__tsan_mutex_post_lock(this, 0, 0));
}

inline void SharedMutex::unlock() {
  RC_TSAN_MUTEX(__tsan_mutex_pre_unlock(this, 0));
  writer_.store(0);
  if (parked_.load() != 0) {
    wakeParked();
  }
  RC_TSAN_MUTEX(__tsan_mutex_post_unlock(this, 0));
}

inline void SharedMutex::leaveSlot(ReaderSlot& slot) {
  slot.readers.fetch_sub(1);
  // A writer may be parked until the readers have left.
  if (parked_.load() != 0) {
    wakeParked();
  }
}

inline void SharedMutex::acquireWriterFlag() {
  uint32_t expected = 0;
  while (!writer_.compare_exchange_strong(expected, 1)) {
    waitUntil([this] { return writer_.load() == 0; });
    expected = 0;
  }
}

inline void SharedMutex::waitForReadersToLeave() {
  for (std::size_t index = 0; index < READER_SLOTS; ++index) {
    const ReaderSlot& slot = slots_[index];
    if (slot.readers.load() != 0) {
      waitUntil([&slot] { return slot.readers.load() == 0; });
    }
  }
}

template <typename Ready>
void SharedMutex::waitUntil(Ready ready) {
  if (spinUntil(ready)) {
    return;
  }
  parked_.fetch_add(1);
  {
    std::unique_lock<std::mutex> lock(parkMutex_);
    wakeup_.wait(lock, ready);
  }
  parked_.fetch_sub(1);
}

inline void SharedMutex::wakeParked() {
  // Taking the mutex orders this wake-up after a waiter's last look at its
  // condition, or before its next one.
  { const std::lock_guard<std::mutex> lock(parkMutex_); }
  wakeup_.notify_all();
}

#undef RC_TSAN_MUTEX

}  // namespace veranda::reachabilityCache
