#include "sync/SharedMutex.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

namespace veranda::reachabilityCache {
namespace {

using std::chrono::milliseconds;

// Far longer than any wait that should end, so that only a broken lock hits it.
constexpr milliseconds GENEROUS{20000};

// Waits until `condition` holds or `timeout` passes; its last answer.
template <typename Condition>
bool eventually(Condition condition, milliseconds timeout = GENEROUS) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= deadline) {
      return false;
    }
    std::this_thread::yield();
  }
  return true;
}

// Busy for `duration`, holding whatever the caller holds: long enough that
// waiters stop spinning and park.
void holdFor(std::chrono::nanoseconds duration) {
  const auto until = std::chrono::steady_clock::now() + duration;
  while (std::chrono::steady_clock::now() < until) {
  }
}

TEST(SharedMutexTest, ReadersHoldItAtTheSameTime) {
  SharedMutex mutex;
  std::atomic<int> inside{0};
  std::atomic<bool> sawBoth[2] = {false, false};
  std::vector<std::thread> readers;
  readers.reserve(std::size(sawBoth));
  for (std::atomic<bool>& saw : sawBoth) {
    readers.emplace_back([&mutex, &inside, &saw] {
      ReaderLock lock(mutex);
      ++inside;
      // With an exclusive lock the other reader could never come in.
      saw = eventually([&] { return inside.load() == 2; });
    });
  }
  for (std::thread& reader : readers) {
    reader.join();
  }
  EXPECT_TRUE(sawBoth[0]);
  EXPECT_TRUE(sawBoth[1]);
}

// Readers and writers in turn, some holding past the time waiters spin so
// that both kinds also park: a writer is always alone, and every hold ends.
TEST(SharedMutexTest, AWriterIsAloneWhetherWaitersSpinOrPark) {
  constexpr int READERS = 3;
  constexpr int WRITERS = 2;
  constexpr int ROUNDS = 5000;
  SharedMutex mutex;
  std::atomic<int> readersInside{0};
  std::atomic<int> writersInside{0};
  std::atomic<int> overlaps{0};
  long writes = 0;  // guarded by mutex
  std::vector<std::thread> threads;
  for (int t = 0; t < READERS + WRITERS; ++t) {
    const bool writer = t < WRITERS;
    threads.emplace_back([&, t, writer] {
      for (int round = 0; round < ROUNDS; ++round) {
        const bool longHold = round % 50 == t;
        if (writer) {
          WriterLock lock(mutex);
          overlaps += ++writersInside == 1 && readersInside.load() == 0 ? 0 : 1;
          ++writes;
          if (longHold) {
            holdFor(3 * LOCK_SPIN_TIME);
          }
          --writersInside;
        } else {
          ReaderLock lock(mutex);
          ++readersInside;
          overlaps += writersInside.load() == 0 ? 0 : 1;
          if (longHold) {
            holdFor(3 * LOCK_SPIN_TIME);
          }
          --readersInside;
        }
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(overlaps.load(), 0);
  WriterLock lock(mutex);
  EXPECT_EQ(writes, long{WRITERS} * ROUNDS);
}

// A reader holds the lock and a writer waits for it. A reader that arrives
// now waits behind the writer instead of joining the first reader: a stream
// of readers cannot keep the writer out.
TEST(SharedMutexTest, ArrivingReadersWaitBehindAWaitingWriter) {
  SharedMutex mutex;
  std::mutex orderMutex;
  std::vector<char> order;  // who got the lock, in turn
  const auto enter = [&](char who) {
    const std::lock_guard<std::mutex> lock(orderMutex);
    order.push_back(who);
  };
  const auto entered = [&](char who) {
    const std::lock_guard<std::mutex> lock(orderMutex);
    return std::find(order.begin(), order.end(), who) != order.end();
  };

  std::atomic<bool> releaseFirst{false};
  std::thread first([&] {
    ReaderLock lock(mutex);
    enter('R');
    eventually([&] { return releaseFirst.load(); });
  });
  EXPECT_TRUE(eventually([&] { return entered('R'); }));
  std::thread writer([&] {
    WriterLock lock(mutex);
    enter('W');
  });
  EXPECT_TRUE(eventually([&] { return mutex.hasWriter(); }));
  std::thread late([&] {
    ReaderLock lock(mutex);
    enter('L');
  });
  // A lock that prefers readers lets the late reader in at once; this one
  // must keep it out for as long as the writer waits.
  EXPECT_FALSE(eventually([&] { return entered('L'); }, milliseconds(100)));
  releaseFirst = true;
  first.join();
  writer.join();
  late.join();
  EXPECT_EQ(order, (std::vector<char>{'R', 'W', 'L'}));
  EXPECT_FALSE(mutex.hasWriter());
}

}  // namespace
}  // namespace veranda::reachabilityCache
