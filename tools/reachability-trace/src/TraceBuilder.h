// Reconstructs the caches of a capture from the library's messages, one
// message at a time, in capture order.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "CauseReader.h"
#include "ChangeReader.h"
#include "CheckReader.h"
#include "EntityAnswers.h"
#include "EventReader.h"
#include "Evidence.h"
#include "LibraryLine.h"
#include "LogMessage.h"
#include "TraceModel.h"

namespace veranda::reachabilityCache::trace {

// What a trace keeps beyond its figures, the part of the capture it tells
// about, and its bounds.
struct TraceScope {
  // Whose changes and answers keep the log lines that caused them.
  EvidenceScope evidence;
  // The caches are followed from the capture's start, but counted and
  // recorded only in the window; the page's evidence is kept only there.
  TraceWindow window;
  TraceLimits limits;
};

// Hands each message to the readers of its cache: the cache's life and
// configuration are read here; its checks, events, changes and answers by
// readers of their own; its problems where their lines are read. Not
// thread-safe.
class TraceBuilder {
 public:
  explicit TraceBuilder(TraceScope scope = {});

  void add(const LogMessage& message);
  // Counts lines that are the library's but could not be read; `first` is
  // the first of them.
  void addDamaged(uint64_t lines, const std::string& first);
  // A bug report's log section begins: a new log, of the boot before when
  // its title says so ("LAST LOGCAT").
  void beginSection(std::string_view title);

  // Ends the capture: limits the trace to the window, checks the cycles'
  // rhythm and returns the result.
  Trace finish(uint64_t bytes, bool bugReport);

 private:
  // The readers of one cache's lines.
  struct Readers {
    // `created`: the cache's first line is its creation.
    Readers(Evidence& evidence, bool created);

    CheckReader checks;
    EventReader events;
    CauseReader causes;
    EntityAnswers answers;
    ChangeReader changes;
  };

  // The cache of the message's process: "cacheCreated" starts a new one, and
  // a process seen first in the middle of its life gets one from its first
  // line. Sets readers_.
  // Null past the trace's limit of caches.
  CacheRecord* cacheFor(const LogMessage& message, const LibraryLine& line, Micros at);
  void damaged(const LogMessage& message);
  void rateLimited(const LogMessage& message);
  std::string ambiguityOf(const LogMessage& message, const LibraryLine& line);
  void ambiguous(const CacheMessage& in, const std::string& why);
  void findReplacedProcesses();
  void facade(const CacheMessage& in);
  void store(const CacheMessage& in);
  void updater(const CacheMessage& in);
  void checker(const CacheMessage& in);
  // The message at `at` may open the window: what was counted before it is
  // forgotten.
  void enterWindow(Micros at);
  // A message after the window: its process's cache ran at least until the
  // window's end.
  void pastWindow(const LogMessage& message);

  std::string storyEntity_;
  TraceWindow window_;
  bool inWindow_ = false;
  uint64_t messagesBefore_ = 0;  // read before the window opened
  Evidence evidence_;
  Trace trace_;
  std::optional<LogMessage> cutShort_;  // the last message, when it was cut short
  uint64_t sequence_ = 0;  // the number of the last message, rate limiter's notices included
  std::string section_;
  bool previousBoot_ = false;
  std::map<int64_t, std::size_t> current_;         // process (or -1) -> index of its cache
  std::vector<std::unique_ptr<Readers>> readers_;  // parallel to trace_.caches
  Readers* reading_ = nullptr;                     // the message's cache's
};

}  // namespace veranda::reachabilityCache::trace
