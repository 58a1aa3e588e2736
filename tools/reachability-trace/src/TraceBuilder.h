// Reconstructs the caches of a capture from the library's messages, one
// message at a time, in capture order.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
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
  // An endpoint as the cache holds it: unreachable, reachable by an event
  // only (no capabilities yet), or reachable by a check or the host.
  enum class EndpointState { UNREACHABLE, UNCONFIRMED, CONFIRMED };

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
    std::unordered_map<std::string, std::map<std::string, EndpointState>> held;  // entity -> ...
    std::set<std::string> uncertain;  // entities whose entry a cut summary lost
    bool notified = false;            // the capture has notification lines
    // An endpoint's state before the lines of a result still being applied
    // on a thread changed it: (entity, endpoint) -> (thread, held, state).
    struct Before {
      int thread;
      bool held;
      EndpointState state;
    };
    std::map<std::pair<std::string, std::string>, Before> before;
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
  // Sets (or with nothing, forgets) an endpoint's state and notes the
  // entity's answer if it changed.
  // `thread` names the thread whose result the change belongs to, if any.
  void hold(std::string_view entityId, std::string_view endpointId,
            std::optional<EndpointState> state, Micros at, std::optional<int> thread = {});
  void forgetEntity(std::string_view entityId, Micros at);
  // Every result tells whether its entity was reachable just before; where
  // the held endpoints say otherwise, an endpoint the capture never named
  // holds the entity, or the held ones had lost their capabilities.
  void correct(std::string_view entityId, std::string_view endpointId, bool reachableBefore,
               int thread, Micros at);
  void noteAnswer(std::string_view entityId, Micros at);
  bool checkAnswering(const LogMessage& message) const;
  // A query's answer, written by the store (debug): the truth at that moment.
  void observe(const LibraryLine& line, Micros at);
  // Puts the endpoints that the lines of `thread`'s result changed back as
  // they were, and returns their states after those lines.
  std::map<std::pair<std::string, std::string>, std::optional<EndpointState>> rollBack(int thread);
  std::optional<EndpointState> heldState(const std::string& entityId,
                                         const std::string& endpointId) const;
  void setHeld(const std::string& entityId, const std::string& endpointId,
               std::optional<EndpointState> state);
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
