// Reconstructs the caches of a capture from the library's messages, one
// message at a time, in capture order.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ChangeReader.h"
#include "CheckReader.h"
#include "EntityAnswers.h"
#include "EventReader.h"
#include "LibraryLine.h"
#include "LogMessage.h"
#include "TraceModel.h"

namespace veranda::reachabilityCache::trace {

// Hands each message to the readers of its cache: the cache's life and
// configuration are read here; its checks, events, changes and answers by
// readers of their own; its problems where their lines are read. Not
// thread-safe.
class TraceBuilder {
 public:
  // `storyEntity`, when not empty, names the entity whose changes keep the
  // log lines that caused them.
  explicit TraceBuilder(std::string storyEntity = "", TraceLimits limits = {});

  void add(const LogMessage& message);
  // Counts lines that are the library's but could not be read; `first` is
  // the first of them.
  void addDamaged(uint64_t lines, const std::string& first);
  // A bug report's log section begins: a new log, of the boot before when
  // its title says so ("LAST LOGCAT").
  void beginSection(std::string_view title);

  // Ends the capture: checks the cycles' rhythm and returns the result.
  Trace finish(uint64_t bytes, bool bugReport);

 private:
  // The readers of one cache's lines.
  struct Readers {
    // `created`: the cache's first line is its creation.
    Readers(const std::string& storyEntity, bool created);

    CheckReader checks;
    EventReader events;
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

  std::string storyEntity_;
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
