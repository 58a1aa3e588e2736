// What isEntityReachable answers for each entity of a cache, worked out from
// the store's lines and the results applied to it, and noted in the entity's
// record each time it changes.
#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "CacheMessage.h"
#include "CauseReader.h"

namespace veranda::reachabilityCache::trace {

// The store is followed endpoint by endpoint: an entity is reachable while
// one of its endpoints is, by a check's answer or the host's own record; an
// event alone does not make it so. Each answer noted gets its cause from
// `causes`. One per cache; not thread-safe.
class EntityAnswers {
 public:
  explicit EntityAnswers(CauseReader& causes) : causes_(causes) {}

  // An endpoint as the store holds it: unreachable, reachable by an event
  // only (no capabilities yet), or reachable by a check or the host.
  enum class EndpointState { UNREACHABLE, UNCONFIRMED, CONFIRMED };
  // Endpoints' states by (entity, endpoint); nothing for one not held.
  using States = std::map<std::pair<std::string, std::string>, std::optional<EndpointState>>;

  // The store's lines that change or tell what it holds.
  void storeLine(const CacheMessage& in);

  // Sets (or with nothing, forgets) an endpoint's state. With `onThread`,
  // the change belongs to the result being applied on the message's thread,
  // which rollBack() can undo.
  void hold(const CacheMessage& in, std::string_view entityId, std::string_view endpointId,
            std::optional<EndpointState> state, bool onThread);

  // Every result tells whether its entity was reachable just before; where
  // the held endpoints say otherwise, an endpoint the capture never named
  // holds the entity, or the held ones had lost their capabilities.
  void correct(const CacheMessage& in, std::string_view entityId, std::string_view endpointId,
               bool reachableBefore);

  // Puts the endpoints that the lines of `thread`'s result changed back as
  // they were, and returns their states after those lines.
  States rollBack(int thread);
  // Sets the endpoints to `states` and notes their entities' answers.
  void restore(const CacheMessage& in, const States& states);

  // A cut summary lost the entries of the entities it does not name among
  // `told`: what they answer is unknown until their next line.
  void loseUntold(const CacheMessage& in, const std::set<std::string>& told);

 private:
  // An endpoint's state before the lines of a result still being applied
  // on a thread changed it.
  struct Before {
    int thread;
    bool held;
    EndpointState state;
  };

  void forgetEntity(const CacheMessage& in, std::string_view entityId);
  // `endpointId`: the endpoint whose line told it, empty when none did.
  void noteAnswer(const CacheMessage& in, std::string_view entityId,
                  std::string_view endpointId = "");
  // A query's answer, written by the store (debug): the truth at that moment.
  void observe(const CacheMessage& in);
  std::optional<EndpointState> heldState(const std::string& entityId,
                                         const std::string& endpointId) const;
  void setHeld(const std::string& entityId, const std::string& endpointId,
               std::optional<EndpointState> state);

  CauseReader& causes_;
  std::unordered_map<std::string, std::map<std::string, EndpointState>> held_;  // entity -> ...
  std::set<std::string> uncertain_;  // entities whose entry a cut summary lost
  std::map<std::pair<std::string, std::string>, Before> before_;  // (entity, endpoint) -> ...
};

}  // namespace veranda::reachabilityCache::trace
