#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <thread>
#include <vector>

#include "sync/Mutex.h"

namespace veranda::reachabilityCache {
namespace {

// Threads take the mutex in turn; now and then a holder keeps it past the
// time waiters retry, so that they park. No two holders overlap either way.
TEST(MutexTest, HoldersNeverOverlapWhetherWaitersRetryOrPark) {
  constexpr int THREADS = 4;
  constexpr int ROUNDS = 20000;
  Mutex mutex;
  int holders = 0;  // guarded by mutex
  long total = 0;   // guarded by mutex
  std::atomic<int> overlaps{0};
  std::vector<std::thread> threads;
  threads.reserve(THREADS);
  for (int t = 0; t < THREADS; ++t) {
    threads.emplace_back([&, t] {
      for (int round = 0; round < ROUNDS; ++round) {
        MutexLock lock(mutex);
        overlaps += ++holders == 1 ? 0 : 1;
        ++total;
        if (round % 20 == t) {
          const auto until = std::chrono::steady_clock::now() + 3 * LOCK_SPIN_TIME;
          while (std::chrono::steady_clock::now() < until) {
          }
        }
        --holders;
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(overlaps.load(), 0);
  EXPECT_EQ(total, long{THREADS} * ROUNDS);
}

// Another thread gets the mutex while the lock has let go of it and after
// the scope ends, whether it ends normally or by an exception thrown while
// let go; it is not released twice (which ThreadSanitizer would report).
TEST(RelockableMutexLockTest, ReleasesBetweenUnlockAndLockAndOnlyWhatItHolds) {
  Mutex mutex;
  int entries = 0;
  const auto enterElsewhere = [&] {
    std::thread([&] {
      MutexLock lock(mutex);
      ++entries;
    }).join();
  };
  {
    RelockableMutexLock lock(mutex);
    lock.unlock();
    enterElsewhere();
    lock.lock();
    ++entries;
  }
  enterElsewhere();
  EXPECT_THROW(
      {
        RelockableMutexLock lock(mutex);
        lock.unlock();
        throw std::runtime_error("thrown while let go");
      },
      std::runtime_error);
  enterElsewhere();
  MutexLock lock(mutex);
  EXPECT_EQ(entries, 4);
}

}  // namespace
}  // namespace veranda::reachabilityCache
