// Records what happens during a run and prints it as it happens.
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <ostream>
#include <string>
#include <unordered_map>
#include <vector>

#include "Answer.h"
#include "RunClock.h"
#include "Scenario.h"

namespace veranda::reachabilityCache::sim {

// What isEntityReachable answers from `atMs` on (never UNKNOWN: the
// simulator reads the cache itself).
struct AnswerChange {
  int64_t atMs;
  tools::Answer answer;
};

// What a run saw of one entity: what the picture and the final table need.
// It grows with the changes of the entity's answer; its notification times are
// thinned to what the picture can tell apart, so that they grow with the
// picture's width, not with the run's length.
struct EntityHistory {
  std::vector<AnswerChange> answers{{0, tools::Answer::ABSENT}};  // each change, in time order
  std::vector<int64_t> notifiedAtMs;  // when listeners were told, none closer than the spacing
  std::size_t notifications = 0;      // every time listeners were told about the entity
};

// How often isEntityReachable of the entity changed its answer.
std::size_t answerChanges(const EntityHistory& history);
// How long it answered yes before `endMs`.
int64_t reachableMs(const EntityHistory& history, int64_t endMs);

// An entity's answer is recorded whenever it can change: at each listener
// notification (which the cache sends right after the change it announces,
// before anything else changes the entity) and where the simulator reads
// the cache itself, after the changes that listeners do not hear. So the
// answers are what isEntityReachable answered at every moment.
//
// Thread safety: every member may be called from any thread; lines are
// printed whole, in the order the calls take the lock.
class Timeline {
 public:
  // `out` receives the timeline; null prints nothing. Times come from `clock`.
  // Notification times are kept no closer than a 2000th of the scenario's
  // duration per entity.
  Timeline(const Scenario& scenario, const RunClock& clock, std::ostream* out);

  // Prints the heading; `tracker` adds the tracker's column.
  void start(bool tracker);

  // Each prints one line and records it. Calls after stop() are ignored.
  //
  // The home or the host acts; called before the act, so that its line comes
  // before whatever it causes.
  void action(const Event& event, const Device& device, const std::string& outcome);
  // The simulator's listener was called; `entityReachable` is what
  // isEntityReachable answered inside it.
  void notification(const std::string& endpointId, const std::string& entityId,
                    const std::string& adapterName, bool reachable, bool entityReachable);
  // The entity tracker told that isEntityReachable of the entity changed.
  void trackerChange(const std::string& entityId, bool reachable);
  // A periodic cycle asked the provider.
  void cycle(std::size_t named);
  // The entity as the simulator read it from the cache after a change that
  // listeners are not told; a line ("~") when its answer changed.
  void observe(const std::string& entityId, tools::Answer answer);
  // Something else listeners are not told about the entity ("~").
  void remark(const std::string& entityId, const std::string& text);

  // Ends recording.
  void stop();

  // Parallel to the scenario's entities.
  std::vector<EntityHistory> histories() const;
  std::vector<int64_t> cycleTimes() const;
  // Over all entities, those outside the scenario too.
  std::size_t notificationCount() const;
  std::size_t toldReachableCount() const;

 private:
  // Records the entity's answer at `atMs`; false when it was that already.
  bool recordLocked(std::size_t entity, int64_t atMs, tools::Answer answer);
  // The scenario's index of the entity, or npos.
  std::size_t indexOf(const std::string& entityId) const;
  std::string stamp(int64_t atMs) const;

  const RunClock& clock_;
  std::ostream* out_;
  std::vector<std::string> entities_;
  std::unordered_map<std::string, std::size_t> index_;  // by id as the cache keys it
  int entityWidth_;
  int endpointWidth_;
  int adapterWidth_;
  int64_t markSpacingMs_;

  mutable std::mutex mutex_;
  bool stopped_ = false;
  std::vector<EntityHistory> histories_;
  std::vector<int64_t> cycles_;
  std::size_t notifications_ = 0;
  std::size_t toldReachable_ = 0;
};

}  // namespace veranda::reachabilityCache::sim
