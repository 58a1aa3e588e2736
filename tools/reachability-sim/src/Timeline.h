// Records what happens during a run and prints it as it happens.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <ostream>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "Scenario.h"

namespace veranda::reachabilityCache::sim {

// An entity as the cache holds it.
enum class EntityState { kAbsent, kReachable, kUnreachable };

struct StateChange {
  int64_t atMs;
  EntityState state;
};

// One call of the simulator's listener.
struct Notification {
  int64_t atMs;
  std::string entityId;
  std::string endpointId;
  std::string adapterName;
  bool reachable;        // what the listener was told
  bool entityReachable;  // what isEntityReachable answered inside the listener
};

// Thread safety: every member may be called from any thread; lines are
// printed whole, in the order the calls take the lock.
class Timeline {
 public:
  using Clock = std::chrono::steady_clock;

  // `out` receives the timeline; null prints nothing.
  Timeline(const Scenario& scenario, std::ostream* out);

  // Prints the heading and starts the clock; times are counted from here.
  void start();
  int64_t nowMs() const;

  // Each records one line (and prints it). Calls after stop() are ignored.
  void notification(const std::string& endpointId, const std::string& entityId,
                    const std::string& adapterName, bool reachable, bool entityReachable);
  void cycle(std::size_t named);
  void action(const Event& event, const Device& device, const std::string& outcome);
  // Records the entity's state as seen now, without a line of its own.
  void observe(const std::string& entityId, EntityState state);
  // Entities that a snapshot of the cache taken at `snapshotMs` no longer
  // holds, and that nothing recorded since, left the cache unannounced.
  // `cachedEntities` holds ids as the cache keys them.
  void noteCacheContents(const std::unordered_set<std::string>& cachedEntities, int64_t snapshotMs);
  // Ends recording at the current time.
  void stop();

  std::vector<Notification> notifications() const;
  std::vector<int64_t> cycleTimes() const;
  // Parallel to the scenario's entities; each list starts absent at 0.
  std::vector<std::vector<StateChange>> states() const;
  int64_t stoppedAtMs() const;

 private:
  void recordLocked(std::size_t entity, int64_t atMs, EntityState state);
  // The scenario's index of the entity, or npos.
  std::size_t indexOf(const std::string& entityId) const;
  std::string stamp(int64_t atMs) const;

  std::ostream* out_;
  std::vector<std::string> entities_;
  std::vector<std::string> normalised_;  // as the cache keys them
  std::unordered_map<std::string, std::size_t> index_;
  int entityWidth_;
  int endpointWidth_;
  int adapterWidth_;
  Clock::time_point start_;

  mutable std::mutex mutex_;
  bool stopped_ = false;
  int64_t stoppedAtMs_ = 0;
  std::vector<Notification> notifications_;
  std::vector<int64_t> cycles_;
  std::vector<std::vector<StateChange>> states_;
  std::vector<int64_t> lastRecordMs_;
};

}  // namespace veranda::reachabilityCache::sim
