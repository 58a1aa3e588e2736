// Records every line that reaches the platform log during a test: the test
// binary defines __android_log_print itself and hands each line here.
#pragma once

#include <cstddef>
#include <mutex>
#include <ostream>
#include <string>
#include <vector>

namespace veranda::reachabilityCache::test {

struct LogLine {
  int priority;
  std::string tag;
  std::string text;

  bool operator==(const LogLine& other) const {
    return priority == other.priority && tag == other.tag && text == other.text;
  }
};

std::ostream& operator<<(std::ostream& out, const LogLine& line);

inline constexpr const char* FACADE_TAG = "ReachabilityCache-ReachabilityCache";
inline constexpr const char* STORE_TAG = "ReachabilityCache-CacheCore";
inline constexpr const char* UPDATER_TAG = "ReachabilityCache-ReachabilityUpdater";
inline constexpr const char* CHECKER_TAG = "ReachabilityCache-ApplianceDriverChecker";
inline constexpr const char* TRACKER_TAG = "ReachabilityCache-EntityReachabilityTracker";
inline constexpr const char* METRIC_TAG = "Veranda-Metric";

// Thread safety: every member may be called from any thread.
class LogRecorder {
 public:
  static LogRecorder& instance();

  void record(int priority, const char* tag, const char* text);
  void clear();
  // When set, lines are dropped instead of recorded (for long stress runs).
  void setDiscard(bool discard);

  std::vector<LogLine> lines() const;
  // The lines recorded since the last clear() or take(), and clears them: a
  // line recorded meanwhile is in this answer or the next, never lost.
  std::vector<LogLine> take();
  std::vector<LogLine> linesWithTag(const std::string& tag) const;
  std::vector<std::string> texts(const std::string& tag) const;
  // The number of lines with `tag` that contain `fragment`.
  std::size_t countContaining(const std::string& tag, const std::string& fragment) const;

 private:
  LogRecorder() = default;

  mutable std::mutex mutex_;
  std::vector<LogLine> lines_;
  bool discard_ = false;
};

}  // namespace veranda::reachabilityCache::test
