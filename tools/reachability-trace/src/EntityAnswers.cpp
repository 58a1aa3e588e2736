#include "EntityAnswers.h"
#include "diagnostics/LogSchema.h"

#include <vector>

namespace veranda::reachabilityCache::trace {

using namespace logSchema;  // the names the lines are read with
namespace {

// A result's own line: its notification or its summary.
bool isResultLine(const CacheMessage& in) {
  return in.line.label == label::NOTIFY_REACHABILITY_LISTENERS ||
         in.line.label == label::PROCESS_REACHABILITY_RESULTS;
}

}  // namespace

// ---- what the lines say ----

void EntityAnswers::storeLine(const CacheMessage& in) {
  const LibraryLine& line = in.line;
  const std::string_view label = line.label;
  const std::string_view entityId = line.get(key::ENTITY_ID).value_or("");
  const std::string_view endpointId = line.get(key::ENDPOINT_ID).value_or("");
  if (label == label::INSERT_ENDPOINT) {
    if (!line.get(key::REASON) && line.get(key::ENTITY_ID) && line.get(key::ENDPOINT_ID)) {
      insertLine(in, entityId, endpointId);
    }
  } else if (label == label::REMOVE_ENDPOINT && line.has(key::ACTION, action::REMOVED_ENDPOINT)) {
    removeLine(in, entityId, endpointId, false);
  } else if (label == label::REMOVE_ENDPOINT &&
             line.has(key::ACTION, action::REMOVED_ENDPOINT_AND_ENTITY)) {
    removeLine(in, entityId, endpointId, true);
  } else if (label == label::REMOVE_ENTITY && line.has(key::ACTION, action::REMOVED_ENTITY)) {
    Entity* state = follow(in, entityId);
    if (state == nullptr) {
      return;
    }
    if (derive(*state).answer == Answer::ABSENT) {
      retract(in, entityId, *state);  // it was there
    }
    know(in, *state, Fact::ABSENT);
    noteAnswer(in, entityId);
  } else if (label == label::CLEAR && line.has(key::ACTION, action::CLEARED)) {
    emptyStore(in);
  } else if (label == label::CLEAR_ENDPOINT_CAPABILITIES &&
             line.has(key::ACTION, action::CLEARED_CAPABILITIES)) {
    if (Entity* state = follow(in, entityId, endpointId)) {
      change(in, *state, entityId, endpointId, Effect::CLEAR, true);
      noteAnswer(in, entityId, endpointId, true);
    }
  } else if (label == label::IS_ENTITY_REACHABLE) {
    observe(in);
  }
}

EntityAnswers::Effect EntityAnswers::insertEffect(const CacheMessage& in) const {
  if (checks_.answering(in.cache, in.thread) != nullptr) {
    return Effect::CHECK;
  }
  // The updater applies events on its own thread, the one its cycles run on;
  // any other thread is the host's, whose record is taken to reach.
  return in.message.tid && checks_.isUpdaterThread(in.thread) ? Effect::EVENT : Effect::CHECK;
}

void EntityAnswers::insertLine(const CacheMessage& in, std::string_view entityId,
                               std::string_view endpointId) {
  Entity* followed = follow(in, entityId, endpointId);
  if (followed == nullptr) {
    return;
  }
  Entity& state = *followed;
  if (in.line.has(key::ACTION, action::NEW_ENTITY)) {
    fact(in, entityId, state, Fact::ABSENT);  // the entity was not in the store
  } else if (in.line.has(key::ACTION, action::APPENDED)) {
    endpoint(state, endpointId) = {Reach::NOT_HELD, false};
  } else if (in.line.has(key::ACTION, action::MERGED)) {
    Endpoint& held = endpoint(state, endpointId);
    held.reach = held.reach == Reach::NOT_REACHING || held.reach == Reach::NOT_HELD ? Reach::HELD
                                                                                    : held.reach;
  }
  change(in, state, entityId, endpointId, insertEffect(in), true);
  noteAnswer(in, entityId, endpointId, true);
}

void EntityAnswers::removeLine(const CacheMessage& in, std::string_view entityId,
                               std::string_view endpointId, bool last) {
  Entity* followed = follow(in, entityId, endpointId);
  if (followed == nullptr) {
    return;
  }
  Entity& state = *followed;
  Endpoint& removed = endpoint(state, endpointId);
  state.witness = state.witness && removed.reach != Reach::UNKNOWN;
  removed = {Reach::NOT_HELD, false};
  if (last) {
    fact(in, entityId, state, Fact::ABSENT);  // its last endpoint went, and it with it
  } else if (derive(state).answer == Answer::ABSENT) {
    retract(in, entityId, state);  // it still has another endpoint
  }
  noteAnswer(in, entityId, endpointId);
}

void EntityAnswers::emptyStore(const CacheMessage& in) {
  baseline_ = Reach::NOT_HELD;
  baselineReason_ = UnknownReason::NONE;
  std::vector<std::string> ids;
  ids.reserve(entities_.size());
  for (auto& [id, state] : entities_) {
    know(in, state, Fact::ABSENT);
    ids.push_back(id);
  }
  for (const std::string& id : ids) {
    noteAnswer(in, id);
  }
}

void EntityAnswers::observe(const CacheMessage& in) {
  const std::string_view entityId = in.line.get(key::ENTITY_ID).value_or("");
  const bool known = entities_.count(std::string(entityId)) > 0;
  if (entityId.empty() || (!known && in.line.has(key::REASON, reason::NOT_IN_CACHE))) {
    return;  // an entity the cache never held is no row of the report
  }
  Entity* followed = follow(in, entityId);
  if (followed == nullptr) {
    return;
  }
  Entity& state = *followed;
  if (in.line.has(key::REACHABLE, value::TRUE_TEXT)) {
    fact(in, entityId, state, Fact::REACHABLE);
  } else if (in.line.has(key::REASON, reason::NOT_IN_CACHE)) {
    fact(in, entityId, state, Fact::ABSENT);
  } else {
    fact(in, entityId, state, Fact::PRESENT_NOT_REACHABLE);
  }
  noteAnswer(in, entityId);
}

void EntityAnswers::reachableBefore(const CacheMessage& in, std::string_view entityId,
                                    std::string_view endpointId, bool reachable, bool ownLines) {
  Entity* followed = follow(in, entityId, endpointId);
  if (followed == nullptr) {
    return;
  }
  Entity& state = *followed;
  const Fact told = reachable ? Fact::REACHABLE : Fact::NOT_REACHABLE;
  const auto own = before_.find({std::string(entityId), std::string(endpointId)});
  if (!ownLines || own == before_.end() || own->second.thread != in.thread) {
    fact(in, entityId, state, told);
    return;
  }
  // The fact is about the endpoint as it was before this thread's own lines:
  // it is judged and corrected there, and the result's change applied after.
  const auto current = state.endpoints.find(std::string(endpointId));
  const std::optional<Endpoint> after =
      current == state.endpoints.end() ? std::nullopt : std::optional<Endpoint>(current->second);
  if (own->second.endpoint) {
    state.endpoints[std::string(endpointId)] = *own->second.endpoint;
  } else {
    state.endpoints.erase(std::string(endpointId));
  }
  fact(in, entityId, state, told);
  const auto corrected = state.endpoints.find(std::string(endpointId));
  own->second.endpoint = corrected == state.endpoints.end()
                             ? std::nullopt
                             : std::optional<Endpoint>(corrected->second);
  if (after) {
    state.endpoints[std::string(endpointId)] = *after;
  } else {
    state.endpoints.erase(std::string(endpointId));
  }
}

void EntityAnswers::apply(const CacheMessage& in, std::string_view entityId,
                          std::string_view endpointId, Effect effect, bool onThread) {
  if (Entity* state = follow(in, entityId, endpointId)) {
    change(in, *state, entityId, endpointId, effect, onThread);
    noteAnswer(in, entityId, endpointId);
  }
}

void EntityAnswers::change(const CacheMessage& in, Entity& state, std::string_view entityId,
                           std::string_view endpointId, Effect effect, bool onThread) {
  // A result's own earlier line about the endpoint is looked through: the
  // result changes the endpoint as it was before it.
  std::optional<Endpoint> base;
  if (onThread) {
    const auto own = before_.find({std::string(entityId), std::string(endpointId)});
    if (own != before_.end() && own->second.thread == in.thread) {
      base = own->second.endpoint.value_or(Endpoint{state.unnamed, false});
    } else {
      remember(in, entityId, endpointId);
    }
  }
  Endpoint& target = endpoint(state, endpointId);
  if (!base) {
    base = target;
  }
  if (effect == Effect::CLEAR && base->reach == Reach::UNKNOWN) {
    state.witness = false;  // it may have been the one that reached
  }
  target = effectOn(effect, *base);
}

// ---- states ----

EntityAnswers::Entity* EntityAnswers::follow(const CacheMessage& in, std::string_view entityId,
                                             std::string_view endpointId) {
  if (in.entity(entityId) == nullptr) {
    return nullptr;
  }
  Entity& state = entity(entityId);
  if (!endpointId.empty() && state.endpoints.count(std::string(endpointId)) == 0 &&
      state.endpoints.size() >= in.trace.limits.endpointsPerEntity) {
    if (state.leftOutMessage != in.number) {  // a line is counted once
      state.leftOutMessage = in.number;
      ++in.trace.leftOut.endpointLines;
    }
    forgetWhatIsKnown(state, UnknownReason::LEFT_OUT);
    noteAnswer(in, entityId);
    return nullptr;
  }
  return &state;
}

EntityAnswers::Entity& EntityAnswers::entity(std::string_view entityId) {
  const auto [found, added] = entities_.try_emplace(std::string(entityId));
  if (added) {
    found->second.unnamed = baseline_;
    found->second.reason = baselineReason_;
  }
  return found->second;
}

EntityAnswers::Endpoint& EntityAnswers::endpoint(Entity& state, std::string_view endpointId) {
  const auto [found, added] = state.endpoints.try_emplace(std::string(endpointId));
  if (added) {
    found->second = {state.unnamed, false};  // it was one of those the capture never named
  }
  return found->second;
}

EntityAnswers::Derived EntityAnswers::derive(const Entity& state) const {
  bool reaches = false;
  bool reachesByFact = false;
  bool unknown = state.unnamed == Reach::UNKNOWN;
  bool held = state.unnamed == Reach::NOT_REACHING;
  for (const auto& [id, endpoint] : state.endpoints) {
    reaches = reaches || endpoint.reach == Reach::REACHES;
    reachesByFact = reachesByFact || (endpoint.reach == Reach::REACHES && !endpoint.inferred);
    unknown = unknown || endpoint.reach == Reach::UNKNOWN;
    held = held || endpoint.reach == Reach::HELD || endpoint.reach == Reach::NOT_REACHING;
  }
  if (reaches || state.witness) {
    return {Answer::REACHABLE, !state.witness && !reachesByFact};
  }
  if (unknown) {
    return {Answer::UNKNOWN, false};
  }
  // Held, or not known to be held but not reaching: isEntityReachable says no.
  return {held ? Answer::UNREACHABLE : Answer::ABSENT, false};
}

EntityAnswers::Endpoint EntityAnswers::effectOn(Effect effect, Endpoint before) const {
  switch (effect) {
    case Effect::CHECK:
      // The driver's type replaces its own set; a type that reached stays.
      return before.reach == Reach::REACHES ? before : Endpoint{Reach::REACHES, true};
    case Effect::EVENT:
      return before.reach == Reach::REACHES || before.reach == Reach::UNKNOWN
                 ? before
                 : Endpoint{Reach::HELD, false};
    case Effect::CLEAR:
      return {Reach::HELD, false};
    case Effect::NONE:
      break;
  }
  return before;
}

void EntityAnswers::fact(const CacheMessage& in, std::string_view entityId, Entity& state,
                         Fact fact) {
  const Derived now = derive(state);
  bool present = state.witness;
  for (const auto& [id, endpoint] : state.endpoints) {
    present = present || endpoint.reach == Reach::HELD || endpoint.reach == Reach::REACHES;
  }
  const bool contradicted = (fact == Fact::REACHABLE &&
                             (now.answer == Answer::UNREACHABLE || now.answer == Answer::ABSENT)) ||
                            (fact != Fact::REACHABLE && now.answer == Answer::REACHABLE) ||
                            (fact == Fact::PRESENT_NOT_REACHABLE && now.answer == Answer::ABSENT) ||
                            (fact == Fact::ABSENT && present);
  if (contradicted) {
    retract(in, entityId, state);
  }
  know(in, state, fact);
}

void EntityAnswers::know(const CacheMessage& in, Entity& state, Fact fact) {
  if (fact == Fact::ABSENT) {
    for (auto& [id, endpoint] : state.endpoints) {
      endpoint = {Reach::NOT_HELD, false};
    }
    state.unnamed = Reach::NOT_HELD;
    state.witness = false;
  } else if (fact == Fact::REACHABLE) {
    // Which endpoint reaches: the only one that can, or "one of the unknown".
    std::vector<Endpoint*> candidates;
    for (auto& [id, endpoint] : state.endpoints) {
      if (endpoint.reach == Reach::REACHES || endpoint.reach == Reach::UNKNOWN) {
        candidates.push_back(&endpoint);
      }
    }
    if (candidates.size() == 1 && state.unnamed != Reach::UNKNOWN && !state.witness) {
      *candidates.front() = {Reach::REACHES, false};
    } else if (derive(state).answer != Answer::REACHABLE) {
      state.witness = true;
    }
  } else {
    for (auto& [id, endpoint] : state.endpoints) {
      if (endpoint.reach == Reach::REACHES || endpoint.reach == Reach::UNKNOWN) {
        endpoint = {Reach::NOT_REACHING, false};
      }
    }
    const bool absent = derive(state).answer == Answer::ABSENT;
    if (state.unnamed == Reach::UNKNOWN || (fact == Fact::PRESENT_NOT_REACHABLE && absent)) {
      state.unnamed = Reach::NOT_REACHING;
    }
    state.witness = false;
  }
  state.factMessage = in.number;
  state.factAt = in.at;
}

void EntityAnswers::retract(const CacheMessage& in, std::string_view entityId, Entity& state) {
  EntityRecord& record = *in.cache.findEntity(entityId);
  std::vector<AnswerRecord>& answers = record.answers;
  Micros from = state.factMessage != 0 ? state.factAt : NO_TIME;
  while (answers.size() > record.settled && answers.back().message > state.factMessage) {
    from = state.factMessage != 0 ? from : answers.back().at;
    answers.pop_back();
  }
  if (from == NO_TIME) {
    from = in.at;
  }
  if (answers.empty() || answers.back().answer != Answer::UNKNOWN) {
    AnswerRecord unknown{
        from, Answer::UNKNOWN, false, UnknownReason::CONTRADICTED, state.factMessage, NO_CAUSE};
    unknown.cause = causes_.noteCause(in, record, "", unknown);
    answers.push_back(unknown);
  }
  state.provisional.reset();
  forgetWhatIsKnown(state, UnknownReason::CONTRADICTED);
}

void EntityAnswers::forgetWhatIsKnown(Entity& state, UnknownReason reason) {
  for (auto& [id, endpoint] : state.endpoints) {
    endpoint = {Reach::UNKNOWN, false};
  }
  state.unnamed = Reach::UNKNOWN;
  state.witness = false;
  state.reason = reason;
}

void EntityAnswers::noteAnswer(const CacheMessage& in, std::string_view entityId,
                               std::string_view endpointId, bool provisional) {
  Entity& state = entity(entityId);
  const Derived derived = derive(state);
  EntityRecord& entityRecord = *in.cache.findEntity(entityId);
  std::vector<AnswerRecord>& answers = entityRecord.answers;
  Micros at = in.at;
  uint32_t cause = NO_CAUSE;  // of the result whose store line noted the answer
  if (!answers.empty() && answers.back().message == in.number) {
    answers.pop_back();  // one message tells one answer: its last
  } else if (state.provisional && state.provisional->first == in.thread && isResultLine(in) &&
             !answers.empty() && answers.back().message == state.provisional->second) {
    at = answers.back().at;  // the result's status corrects what its store line led to
    cause = derived.answer == Answer::UNKNOWN ? NO_CAUSE : answers.back().cause;
    answers.pop_back();
  }
  state.provisional.reset();
  AnswerRecord record{at,
                      derived.answer,
                      derived.inferred,
                      derived.answer == Answer::UNKNOWN ? state.reason : UnknownReason::NONE,
                      in.number,
                      cause};
  const auto sameAnswer = [](const AnswerRecord& a, const AnswerRecord& b) {
    return a.answer == b.answer && a.reason == b.reason;
  };
  if (answers.empty() ? record.answer == Answer::ABSENT : sameAnswer(answers.back(), record)) {
    if (!answers.empty() && answers.back().inferred && !record.inferred) {
      // A fact confirms what was inferred: so it was since then.
      answers.back().inferred = false;
      if (answers.size() >= 2 && sameAnswer(answers[answers.size() - 2], record) &&
          !answers[answers.size() - 2].inferred) {
        answers.pop_back();
      }
    } else if (!answers.empty() && record.inferred && !answers.back().inferred) {
      noteCause(in, entityRecord, endpointId, record);
      answers.push_back(record);  // it rests on an inference from here on
    }
  } else {
    noteCause(in, entityRecord, endpointId, record);
    answers.push_back(record);
    if (provisional) {
      state.provisional.emplace(in.thread, in.number);
    }
  }
  // No line can take back what came before the last fact.
  if (state.factMessage > 0) {
    settleAnswers(in.trace, entityRecord, state.factMessage - 1, false);
  }
}

void EntityAnswers::noteCause(const CacheMessage& in, EntityRecord& record,
                              std::string_view endpointId, AnswerRecord& answer) {
  if (answer.cause == NO_CAUSE) {
    answer.cause = causes_.noteCause(in, record, endpointId, answer);
  }
}

// ---- results being applied ----

void EntityAnswers::remember(const CacheMessage& in, std::string_view entityId,
                             std::string_view endpointId) {
  const Entity& state = entity(entityId);
  const auto current = state.endpoints.find(std::string(endpointId));
  before_[{std::string(entityId), std::string(endpointId)}] = {
      in.thread,
      current == state.endpoints.end() ? std::nullopt : std::optional<Endpoint>(current->second)};
}

EntityAnswers::States EntityAnswers::rollBack(int64_t thread) {
  States after;
  for (auto before = before_.begin(); before != before_.end();) {
    if (before->second.thread != thread) {
      ++before;
      continue;
    }
    const auto& [entityId, endpointId] = before->first;
    Entity& state = entity(entityId);
    const auto current = state.endpoints.find(endpointId);
    after[before->first] =
        current == state.endpoints.end() ? std::nullopt : std::optional<Endpoint>(current->second);
    if (before->second.endpoint) {
      state.endpoints[endpointId] = *before->second.endpoint;
    } else {
      state.endpoints.erase(endpointId);
    }
    before = before_.erase(before);
  }
  return after;
}

void EntityAnswers::restore(const CacheMessage& in, const States& states) {
  for (const auto& [key, endpoint] : states) {
    Entity& state = entity(key.first);
    if (endpoint) {
      state.endpoints[key.second] = *endpoint;
    } else {
      state.endpoints.erase(key.second);
    }
    noteAnswer(in, key.first, key.second);
  }
}

// ---- what the capture lost ----

void EntityAnswers::loseUntold(const CacheMessage& in,
                               const std::set<std::pair<std::string, std::string>>& told) {
  std::vector<std::string> lost;
  for (auto& [id, state] : entities_) {
    if (derive(state).answer == Answer::ABSENT) {
      continue;  // an entity's coming into the store is an info line of its own
    }
    const auto first = told.lower_bound({id, std::string()});
    if (first == told.end() || first->first != id) {
      forgetWhatIsKnown(state, UnknownReason::SUMMARY_CUT);
    } else {
      for (auto& [endpointId, endpoint] : state.endpoints) {
        if (told.count({id, endpointId}) == 0) {
          endpoint = {Reach::UNKNOWN, false};
        }
      }
      state.unnamed = Reach::UNKNOWN;
      state.witness = false;
      state.reason = UnknownReason::SUMMARY_CUT;
    }
    lost.push_back(id);
  }
  for (const std::string& id : lost) {
    noteAnswer(in, id);
  }
}

void EntityAnswers::loseAll(const CacheMessage& in, UnknownReason reason) {
  baseline_ = Reach::UNKNOWN;
  baselineReason_ = reason;
  std::vector<std::string> ids;
  ids.reserve(entities_.size());
  for (auto& [id, state] : entities_) {
    forgetWhatIsKnown(state, reason);
    ids.push_back(id);
  }
  for (const std::string& id : ids) {
    noteAnswer(in, id);
  }
}

void EntityAnswers::loseEntity(const CacheMessage& in, std::string_view entityId,
                               UnknownReason reason) {
  forgetWhatIsKnown(entity(entityId), reason);
  noteAnswer(in, entityId);
}

}  // namespace veranda::reachabilityCache::trace
