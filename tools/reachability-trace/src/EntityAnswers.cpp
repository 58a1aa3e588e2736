#include "EntityAnswers.h"

#include <algorithm>
#include <vector>

namespace veranda::reachabilityCache::trace {

void EntityAnswers::storeLine(const CacheMessage& in) {
  const LibraryLine& line = in.line;
  const std::string_view label = line.label;
  if (label == "insertEndpoint") {
    const std::optional<std::string_view> entityId = line.get("entityId");
    const std::optional<std::string_view> endpointId = line.get("endpointId");
    if (!line.get("reason") && entityId && endpointId) {
      in.cache.entity(*entityId).endpoints.emplace(*endpointId);
      if (line.has("action", "newEntity") || line.has("action", "appended")) {
        // a check's answer or the host's record: with capabilities
        hold(in, *entityId, *endpointId, EndpointState::CONFIRMED, true);
      }
    }
  } else if (label == "removeEndpoint" && (line.has("action", "removedEndpointAndEntity") ||
                                           line.has("action", "removedEndpoint"))) {
    hold(in, line.get("entityId").value_or(""), line.get("endpointId").value_or(""), std::nullopt,
         false);
  } else if (label == "removeEntity" && line.has("action", "removedEntity")) {
    forgetEntity(in, line.get("entityId").value_or(""));
  } else if (label == "clear" && line.has("action", "cleared")) {
    std::vector<std::string> held;
    for (const auto& entry : held_) {
      held.push_back(entry.first);
    }
    for (const std::string& entityId : held) {
      forgetEntity(in, entityId);
    }
  } else if (label == "clearEndpointCapabilities" && line.has("action", "clearedCapabilities")) {
    hold(in, line.get("entityId").value_or(""), line.get("endpointId").value_or(""),
         EndpointState::UNREACHABLE, true);
  } else if (label == "isEntityReachable") {
    observe(in);
  }
}

void EntityAnswers::hold(const CacheMessage& in, std::string_view entityId,
                         std::string_view endpointId, std::optional<EndpointState> state,
                         bool onThread) {
  std::map<std::string, EndpointState>& endpoints = held_[std::string(entityId)];
  uncertain_.erase(std::string(entityId));
  if (onThread) {
    const auto found = endpoints.find(std::string(endpointId));
    const Before before{in.thread, found != endpoints.end(),
                        found != endpoints.end() ? found->second : EndpointState::UNREACHABLE};
    const auto key = std::make_pair(std::string(entityId), std::string(endpointId));
    const auto known = before_.find(key);
    if (known == before_.end() || known->second.thread != in.thread) {
      before_[key] = before;
    }
  }
  if (state == EndpointState::UNREACHABLE && endpoints.count(std::string(endpointId)) == 0) {
    // nothing was inserted: an unreachable result leaves the store alone
  } else if (state) {
    // An event's reachable result merges no capabilities: it keeps what the
    // endpoint had.
    EndpointState& held = endpoints.try_emplace(std::string(endpointId), *state).first->second;
    held = *state == EndpointState::UNCONFIRMED ? std::max(held, *state) : *state;
  } else {
    endpoints.erase(std::string(endpointId));
  }
  noteAnswer(in, entityId, endpointId);
}

void EntityAnswers::forgetEntity(const CacheMessage& in, std::string_view entityId) {
  held_.erase(std::string(entityId));
  uncertain_.erase(std::string(entityId));
  noteAnswer(in, entityId);
}

void EntityAnswers::noteAnswer(const CacheMessage& in, std::string_view entityId,
                               std::string_view endpointId) {
  Answer answer = Answer::ABSENT;
  const auto held = held_.find(std::string(entityId));
  if (uncertain_.count(std::string(entityId)) > 0) {
    answer = Answer::UNKNOWN;
  } else if (held != held_.end() && !held->second.empty()) {
    answer = Answer::UNREACHABLE;
    for (const auto& endpoint : held->second) {
      answer = endpoint.second == EndpointState::CONFIRMED ? Answer::REACHABLE : answer;
    }
  }
  EntityRecord& entity = in.cache.entity(entityId);
  std::vector<AnswerRecord>& answers = entity.answers;
  if (!answers.empty() && answers.back().message == in.number) {
    answers.pop_back();  // one message tells one answer: its last
  }
  const Answer last = answers.empty() ? Answer::ABSENT : answers.back().answer;
  if (answer != last) {
    answers.push_back(
        {in.at, answer, causes_.noteCause(in, entity, endpointId, answer), in.number});
  }
}

std::optional<EntityAnswers::EndpointState> EntityAnswers::heldState(
    const std::string& entityId, const std::string& endpointId) const {
  const auto entity = held_.find(entityId);
  if (entity == held_.end()) {
    return std::nullopt;
  }
  const auto endpoint = entity->second.find(endpointId);
  return endpoint == entity->second.end() ? std::nullopt
                                          : std::optional<EndpointState>(endpoint->second);
}

void EntityAnswers::setHeld(const std::string& entityId, const std::string& endpointId,
                            std::optional<EndpointState> state) {
  if (state) {
    held_[entityId][endpointId] = *state;
  } else if (held_.count(entityId) > 0) {
    held_[entityId].erase(endpointId);
  }
}

EntityAnswers::States EntityAnswers::rollBack(int thread) {
  States after;
  for (auto before = before_.begin(); before != before_.end();) {
    if (before->second.thread != thread) {
      ++before;
      continue;
    }
    const auto& [entityId, endpointId] = before->first;
    after[before->first] = heldState(entityId, endpointId);
    setHeld(
        entityId, endpointId,
        before->second.held ? std::optional<EndpointState>(before->second.state) : std::nullopt);
    before = before_.erase(before);
  }
  return after;
}

void EntityAnswers::restore(const CacheMessage& in, const States& states) {
  for (const auto& [key, state] : states) {
    setHeld(key.first, key.second, state);
    noteAnswer(in, key.first, key.second);
  }
}

void EntityAnswers::observe(const CacheMessage& in) {
  const std::string_view entityId = in.line.get("entityId").value_or("");
  if (entityId.empty()) {
    return;
  }
  const std::string id(entityId);
  if (in.line.has("reason", "notInCache")) {
    if (held_.count(id) > 0 && !held_[id].empty()) {
      forgetEntity(in, entityId);
    }
    return;
  }
  if (held_.count(id) == 0 || held_[id].empty()) {
    return;  // which endpoints it holds, the capture does not tell yet
  }
  uncertain_.erase(id);
  const bool reachable = in.line.has("reachable", "true");
  std::map<std::string, EndpointState>& endpoints = held_[id];
  bool modelled = false;
  for (const auto& endpoint : endpoints) {
    modelled = modelled || endpoint.second == EndpointState::CONFIRMED;
  }
  if (reachable && !modelled) {
    endpoints[""] = EndpointState::CONFIRMED;  // an endpoint the capture never named
  } else if (!reachable && modelled) {
    for (auto& endpoint : endpoints) {
      endpoint.second = std::min(endpoint.second, EndpointState::UNCONFIRMED);
    }
  }
  noteAnswer(in, entityId);
}

void EntityAnswers::correct(const CacheMessage& in, std::string_view entityId,
                            std::string_view endpointId, bool reachableBefore) {
  static const std::string UNNAMED;  // no endpoint id is empty
  std::map<std::string, EndpointState>& endpoints = held_[std::string(entityId)];
  // What the held endpoints said before this result's own lines.
  const auto before = before_.find({std::string(entityId), std::string(endpointId)});
  const bool useBefore = before != before_.end() && before->second.thread == in.thread;
  bool reachable = false;
  for (const auto& endpoint : endpoints) {
    const bool own = useBefore && endpoint.first == endpointId;
    reachable = reachable || (!own && endpoint.second == EndpointState::CONFIRMED);
  }
  if (useBefore && before->second.held) {
    reachable = reachable || before->second.state == EndpointState::CONFIRMED;
  }
  if (reachableBefore && !reachable) {
    endpoints[UNNAMED] = EndpointState::CONFIRMED;
  } else if (!reachableBefore && reachable) {
    for (auto& endpoint : endpoints) {
      endpoint.second = std::min(endpoint.second, EndpointState::UNCONFIRMED);
    }
  }
  noteAnswer(in, entityId, endpointId);
}

void EntityAnswers::loseUntold(const CacheMessage& in, const std::set<std::string>& told) {
  for (const auto& [entityId, endpoints] : held_) {
    if (!endpoints.empty() && told.count(entityId) == 0) {
      uncertain_.insert(entityId);
      noteAnswer(in, entityId);
    }
  }
}

}  // namespace veranda::reachabilityCache::trace
