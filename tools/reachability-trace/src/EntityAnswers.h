// What isEntityReachable answers for each entity of a cache, worked out from
// the lines the capture holds, and noted in the entity's record each time it
// changes.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "CacheMessage.h"
#include "CauseReader.h"
#include "CheckReader.h"

namespace veranda::reachabilityCache::trace {

// Evidence first. Each endpoint of an entity is followed as far as the lines
// tell: not held, held without a driver type that makes the entity
// reachable, reaching, or unknown; endpoints the capture never named count as
// one group. Lines that tell the answer itself (a query's, the status of a
// result, "newEntity", a removal) are facts: a fact that contradicts what the
// earlier lines led to takes the answers back to unknown from the last fact
// on, and the fact then stands. Lines that only say that an endpoint was
// inserted by a check or the host lead to "reachable", marked inferred.
//
// Each answer noted gets its cause from `causes`. One per cache; not
// thread-safe.
class EntityAnswers {
 public:
  // How an endpoint stands in the store.
  enum class Reach : uint8_t {
    NOT_HELD,      // not in the store
    NOT_REACHING,  // not held, or held without a driver type that reaches
    HELD,          // held, without a driver type that reaches
    REACHES,       // held with a driver type that reaches
    UNKNOWN,
  };
  struct Endpoint {
    Reach reach = Reach::UNKNOWN;
    bool inferred = false;  // REACHES rests on a check's or the host's record alone
  };
  // What a result's line tells about the entity of one endpoint.
  enum class Effect {
    CHECK,  // a check found the endpoint reachable: inserted with the driver's type
    EVENT,  // an event found it reachable: merged without a driver type that reaches
    CLEAR,  // its capabilities were cleared
    NONE,   // nothing changed
  };
  // Endpoints' states by (entity, endpoint); nothing for one not named.
  using States = std::map<std::pair<std::string, std::string>, std::optional<Endpoint>>;

  // `created`: the capture holds the cache's creation, so its store starts
  // empty and every entity starts absent; otherwise unknown.
  EntityAnswers(const CheckReader& checks, CauseReader& causes, bool created)
      : checks_(checks),
        causes_(causes),
        baseline_(created ? Reach::NOT_HELD : Reach::UNKNOWN),
        baselineReason_(created ? UnknownReason::NONE : UnknownReason::CAPTURE_START) {}

  // The store's lines that change or tell what it holds.
  void storeLine(const CacheMessage& in);

  // The status of a result (a notification or a summary's entry) tells
  // whether the entity was reachable just before its endpoint's change; with
  // `ownLines`, this thread's own lines about the endpoint came before it and
  // are looked through.
  void reachableBefore(const CacheMessage& in, std::string_view entityId,
                       std::string_view endpointId, bool reachable, bool ownLines);
  // Applies what a result did to its endpoint; with `onThread`, the change
  // belongs to the result being applied on the message's thread, which
  // rollBack() can undo.
  void apply(const CacheMessage& in, std::string_view entityId, std::string_view endpointId,
             Effect effect, bool onThread);

  // Puts the endpoints that the lines of `thread`'s result changed back as
  // they were, and returns their states after those lines.
  States rollBack(int64_t thread);
  // Sets the endpoints to `states` and notes their entities' answers.
  void restore(const CacheMessage& in, const States& states);

  // A cut summary lost entries: endpoints it does not name among `told` are
  // unknown until a line tells.
  void loseUntold(const CacheMessage& in,
                  const std::set<std::pair<std::string, std::string>>& told);
  // Lines of the cache are missing (`reason`): every entity is unknown until
  // a line tells, and so is an entity first named later.
  void loseAll(const CacheMessage& in, UnknownReason reason);
  // A line that could be read another way named `entityId`.
  void loseEntity(const CacheMessage& in, std::string_view entityId, UnknownReason reason);

 private:
  // What a fact tells about the entity.
  enum class Fact { REACHABLE, NOT_REACHABLE, PRESENT_NOT_REACHABLE, ABSENT };
  struct Entity {
    std::map<std::string, Endpoint> endpoints;
    Reach unnamed = Reach::UNKNOWN;  // NOT_HELD, NOT_REACHING or UNKNOWN
    bool witness = false;            // a fact told that one of its unknown endpoints reaches
    UnknownReason reason = UnknownReason::NONE;
    uint64_t factMessage = 0;  // the last fact about it, 0 for none
    Micros factAt = NO_TIME;
    // A store line of a result noted the last answer; the result's own
    // notification or summary at the same time replaces it.
    std::optional<std::pair<int64_t, uint64_t>> provisional;  // (thread, message)
    uint64_t leftOutMessage = 0;  // the last message about an endpoint past the limit
  };
  struct Derived {
    Answer answer;
    bool inferred;
  };
  // An endpoint's state before the lines of a result still being applied
  // on a thread changed it.
  struct Before {
    int64_t thread;
    std::optional<Endpoint> endpoint;  // nothing when it was not named
  };

  // The entity's state, when the trace's limits leave room for it (and for
  // `endpointId`, when given); else null, with what is left out counted.
  Entity* follow(const CacheMessage& in, std::string_view entityId,
                 std::string_view endpointId = {});
  // The state of an entity already followed.
  Entity& entity(std::string_view entityId);
  Endpoint& endpoint(Entity& state, std::string_view endpointId);
  Derived derive(const Entity& state) const;
  // The effect of a result on an endpoint that was `before`.
  Endpoint effectOn(Effect effect, Endpoint before) const;
  // `in`'s line tells `fact` about the entity: what the earlier lines led to
  // is taken back where it disagrees, and the fact stands.
  void fact(const CacheMessage& in, std::string_view entityId, Entity& state, Fact fact);
  // The fact stands, whatever the earlier lines led to (it tells what a
  // change left, not what came before it).
  void know(const CacheMessage& in, Entity& state, Fact fact);
  void change(const CacheMessage& in, Entity& state, std::string_view entityId,
              std::string_view endpointId, Effect effect, bool onThread);
  // The answers since the last fact were wrong: unknown from that fact on.
  void retract(const CacheMessage& in, std::string_view entityId, Entity& state);
  void forgetWhatIsKnown(Entity& state, UnknownReason reason);
  // `endpointId`: the endpoint whose line told it, empty when none did.
  void noteAnswer(const CacheMessage& in, std::string_view entityId,
                  std::string_view endpointId = {}, bool provisional = false);
  // Gives `answer`, about to be noted, its cause where it has none yet.
  void noteCause(const CacheMessage& in, EntityRecord& record, std::string_view endpointId,
                 AnswerRecord& answer);
  void remember(const CacheMessage& in, std::string_view entityId, std::string_view endpointId);
  void insertLine(const CacheMessage& in, std::string_view entityId, std::string_view endpointId);
  void removeLine(const CacheMessage& in, std::string_view entityId, std::string_view endpointId,
                  bool last);
  void emptyStore(const CacheMessage& in);
  void observe(const CacheMessage& in);
  // Where the insert on the message's thread comes from.
  Effect insertEffect(const CacheMessage& in) const;

  const CheckReader& checks_;
  CauseReader& causes_;
  Reach baseline_;  // of an entity or endpoint first named: NOT_HELD or UNKNOWN
  UnknownReason baselineReason_;
  std::unordered_map<std::string, Entity> entities_;
  std::map<std::pair<std::string, std::string>, Before> before_;  // (entity, endpoint) -> ...
};

}  // namespace veranda::reachabilityCache::trace
