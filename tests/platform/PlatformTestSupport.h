// Shared helpers of the platform tests.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>

namespace veranda::platformTesting {

constexpr std::chrono::milliseconds TIMEOUT{5000};

// Entries added from any thread, in order; held tasks and callbacks wait in waitFor() for one.
class Journal {
 public:
  void add(const std::string& entry) {
    std::lock_guard<std::mutex> lock(mutex_);
    text_ += entry + " ";
    added_.notify_all();
  }
  // The entries joined by blanks, once `entry` is one of them or TIMEOUT has passed.
  std::string waitFor(const std::string& entry) {
    std::unique_lock<std::mutex> lock(mutex_);
    added_.wait_for(lock, TIMEOUT,
                    [&] { return text_.find(" " + entry + " ") != std::string::npos; });
    return text_.substr(1, text_.size() - 2);  // without the outer blanks
  }
  // The entries joined by blanks.
  std::string text() {
    std::lock_guard<std::mutex> lock(mutex_);
    return text_.substr(1, text_.size() - 2);
  }

 private:
  std::mutex mutex_;
  std::condition_variable added_;
  std::string text_ = " ";  // every entry followed by a blank
};

}  // namespace veranda::platformTesting
