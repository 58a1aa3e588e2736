// Reconstructs the caches of a capture from the library's messages, one
// message at a time, in capture order.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "LibraryLine.h"
#include "LogMessage.h"
#include "TraceModel.h"

namespace veranda::reachabilityCache::trace {

class TraceBuilder {
 public:
  // `storyEntity`, when not empty, names the entity whose changes keep the
  // log lines that caused them.
  explicit TraceBuilder(std::string storyEntity = "");

  void add(const LogMessage& message);
  // Counts messages that are the library's but could not be read.
  void addDamaged(uint64_t lines) { trace_.damagedLines += lines; }

  // Ends the capture: checks the cycles' rhythm and returns the result.
  Trace finish(uint64_t bytes, bool bugReport);

 private:
  // What the builder needs besides the record while a cache's lines come in.
  struct Pending {
    bool periodicRunning = false;
    std::optional<uint64_t> nextEndpointCount;
    std::unordered_map<std::string, std::pair<bool, std::size_t>> checks;  // id -> (periodic, i)
    std::map<int, std::pair<bool, std::size_t>> answers;  // thread -> check awaiting its summary
    struct Note {
      std::string endpointId;
      std::string entityId;
      bool reachable;
      std::size_t change;
    };
    std::map<int, std::vector<Note>> notes;  // thread -> notifications awaiting their summary
    std::unordered_map<std::string, std::string> lastEvent;  // endpoint -> line (story only)
  };

  CacheRecord& cacheFor(const LogMessage& message, const LibraryLine& line, Micros at);
  void facade(const LibraryLine& line, Micros at);
  void store(const LibraryLine& line, Micros at, const LogMessage& message);
  void updater(const LibraryLine& line, Micros at, const LogMessage& message);
  void checker(const LibraryLine& line, Micros at, const LogMessage& message);
  void summary(const LibraryLine& line, Micros at, const LogMessage& message);
  void notification(const LibraryLine& line, Micros at, const LogMessage& message);

  CheckRecord& check(std::string_view requestId, Micros at);
  EntityRecord& entity(std::string_view id);
  void problem(const char* kind, Micros at, uint64_t count = 1);
  void presence(std::string_view entityId, Micros at, bool present);
  int threadKey(const LogMessage& message) const;
  bool inStory(std::string_view entityId) const;
  std::vector<std::string> causeOf(const LogMessage& message, std::string_view endpointId);
  void checkRhythm(CacheRecord& cache);

  std::string storyEntity_;
  Trace trace_;
  std::map<int, std::size_t> current_;  // process (or -1) -> index of its cache
  std::vector<Pending> pending_;        // parallel to trace_.caches
  CacheRecord* cache_ = nullptr;        // the message's cache
  Pending* state_ = nullptr;
};

}  // namespace veranda::reachabilityCache::trace
