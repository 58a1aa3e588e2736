// Captures the cache's log lines in a host's test, in-process: a test asserts
// on them and they stay off standard error.
#pragma once

#include <cstddef>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

namespace veranda::reachabilityCache::test {

// One line as written: its Android priority (3 debug, 4 info, 5 warn,
// 6 error), its tag and its text.
struct LogLine {
  int priority = 0;  // 3 debug, 4 info, 5 warn, 6 error
  std::string tag;   // the writer's tag
  std::string text;  // the line without tag or priority

  // Same priority, tag and text.
  bool operator==(const LogLine& other) const {
    return priority == other.priority && tag == other.tag && text == other.text;
  }
};

// Writes {priority, tag, "text"}, for test failure messages.
std::ostream& operator<<(std::ostream& out, const LogLine& line);

// While a LogCapture lives, the lines that the cache writes, and the metric
// lines ("Veranda-Metric") that the host's metric stand-in writes for it, go
// to the capture instead of the platform log, which on a host prints them on
// standard error. Every capture alive receives every line written while it
// lives; with none alive the lines go to the platform log again. Make it
// before the cache to see the cache's first lines:
//
//   LogCapture log;
//   ReachabilityCache cache(&provider, config);
//   EXPECT_EQ(log.countContaining("ReachabilityCache-ReachabilityCache",
//                                 "event=cacheCreated"), 1u);
//
// Thread safety: lines arrive on the threads that write them; every member
// may be called from any thread. Creating and destroying captures is
// serialised; a capture is destroyed on a thread of the test, never from a
// listener or another callback of the cache.
class LogCapture {
 public:
  // What the capture does with a line that arrives.
  enum class Mode {
    COLLECT,  // keeps each line
    SILENCE,  // drops each line: nothing reaches standard error
  };

  // Starts capturing at once, in `mode`.
  explicit LogCapture(Mode mode = Mode::COLLECT);
  ~LogCapture();

  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  // Collects or drops the lines that arrive from now on; the lines collected
  // so far are kept.
  void setMode(Mode mode);
  // Also prints each line that arrives on standard error, collected or not,
  // as "<priority> <tag> <text>": for reading what a failing test did.
  void setEcho(bool echo);

  // The lines collected since the capture was made or last emptied, in the
  // order they were written.
  std::vector<LogLine> lines() const;
  // The same, only the lines with `tag`.
  std::vector<LogLine> linesWithTag(const std::string& tag) const;
  // The texts of the lines with `tag`.
  std::vector<std::string> texts(const std::string& tag) const;
  // The number of lines collected.
  std::size_t count() const;
  // The number of lines with `tag` whose text contains `fragment`.
  std::size_t countContaining(const std::string& tag, const std::string& fragment) const;
  // True when `line` was collected, whole: priority, tag and text.
  bool contains(const LogLine& line) const;

  // The lines collected so far, which the capture then forgets: a line
  // written meanwhile is in this answer or the next, never lost.
  std::vector<LogLine> take();
  // Forgets the lines collected so far.
  void clear();

  // Where the lines arrive; an implementation detail, named here only so
  // that the writers' side can hold it.
  class Buffer;

 private:
  std::unique_ptr<Buffer> buffer_;
};

}  // namespace veranda::reachabilityCache::test
