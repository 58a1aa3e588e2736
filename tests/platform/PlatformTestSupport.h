// Shared helpers of the platform tests.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <string>
#include <thread>

namespace veranda::platformTesting {

constexpr std::chrono::milliseconds kTimeout{5000};

// Waits until `condition` holds or kTimeout passes, for a thread held on
// purpose inside a callback, where there is nothing to be notified by.
template <typename Condition>
void spinUntil(Condition condition) {
  const auto deadline = std::chrono::steady_clock::now() + kTimeout;
  while (!condition() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::yield();
  }
}

// Entries added from any thread, kept in order and joined by blanks.
class Journal {
 public:
  void add(const std::string& entry) {
    std::lock_guard<std::mutex> lock(mutex_);
    text_ += (count_++ == 0 ? "" : " ") + entry;
    changed_.notify_all();
  }
  // The entries, once there are at least `count` (or kTimeout has passed).
  std::string waitFor(std::size_t count) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait_for(lock, kTimeout, [&] { return count_ >= count; });
    return text_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::size_t count_ = 0;
  std::string text_;
};

}  // namespace veranda::platformTesting
