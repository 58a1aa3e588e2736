#include "CauseReader.h"

#include "diagnostics/LogSchema.h"

namespace veranda::reachabilityCache::trace {
namespace {

namespace label = logSchema::label;
namespace key = logSchema::key;

// An event waits this many deep per endpoint at most: one whose summary was
// cut away is never applied.
constexpr std::size_t MAX_WAITING_EVENTS = 8;

void append(std::vector<EvidenceLine>& lines, EvidenceLine line) {
  if (line.number != 0 && (lines.empty() || lines.back().number < line.number)) {
    lines.push_back(std::move(line));
  }
}

}  // namespace

void CauseReader::message(const CacheMessage& in) {
  if (!evidence_.any()) {
    return;
  }
  const LibraryLine& line = in.line;
  if (line.label == label::PERFORM_PERIODIC_UPDATE && line.get(key::ENDPOINT_COUNT)) {
    sweeping_[in.thread] = evidence_.line(in);
  } else if (line.label == label::CHECK_REACHABILITY) {
    sweeping_.erase(in.thread);
  } else if (line.label == label::STATE_CHANGE_CALLBACK &&
             line.has(key::ACTION, logSchema::action::INVOKING_CALLBACK)) {
    std::deque<EvidenceLine>& waiting =
        events_[std::string(line.get(key::ENDPOINT_ID).value_or(""))];
    if (waiting.size() == MAX_WAITING_EVENTS) {
      waiting.pop_front();
    }
    waiting.push_back(evidence_.line(in));
  }
}

const CheckRecord* CauseReader::checkOf(const CacheMessage& in) const {
  return in.line.label == label::PROCESS_REACHABILITY_RESULTS
             ? summarised_
             : checks_.answering(in.cache, in.thread);
}

const EvidenceLine* CauseReader::pendingEvent(std::string_view endpointId) const {
  const auto waiting = events_.find(std::string(endpointId));
  return waiting == events_.end() || waiting->second.empty() ? nullptr : &waiting->second.front();
}

std::vector<EvidenceLine> CauseReader::triggerOf(const CacheMessage& in,
                                                 std::string_view endpointId) const {
  std::vector<EvidenceLine> lines;
  if (const CheckRecord* check = checkOf(in)) {
    append(lines, check->startLine);
    append(lines, check->answerLine);
  } else if (const EvidenceLine* event = pendingEvent(endpointId)) {
    append(lines, *event);
  }
  return lines;
}

uint32_t CauseReader::noteCause(const CacheMessage& in, EntityRecord& entity,
                                std::string_view endpointId, const AnswerRecord& answer) {
  if (!evidence_.covers(entity.id, in.at)) {
    return NO_CAUSE;
  }
  AnswerCause cause;
  cause.endpointId = std::string(endpointId);
  const std::string_view lineLabel = in.line.label;
  bool awaitsSummary = false;
  if (answer.answer == Answer::UNKNOWN) {
    cause.kind = CauseKind::LOST;  // the line that showed it
  } else if (lineLabel == label::IS_ENTITY_REACHABLE) {
    cause.kind = CauseKind::QUERY;
  } else if (lineLabel == label::REMOVE_ENTITY) {
    cause.kind = CauseKind::HOST_REMOVAL;
  } else if (lineLabel == label::CLEAR) {
    cause.kind = CauseKind::HOST_INVALIDATION;
  } else if (lineLabel == label::REMOVE_ENDPOINT) {
    cause.kind = CauseKind::SWEEP;
    const auto cycle = sweeping_.find(in.thread);
    if (cycle != sweeping_.end()) {
      append(cause.lines, cycle->second);
    }
  } else if (const CheckRecord* check = checkOf(in)) {
    cause.kind = CauseKind::CHECK;
    cause.requestId = check->requestId;
    cause.lines = triggerOf(in, endpointId);
    awaitsSummary = true;
  } else if (pendingEvent(endpointId) != nullptr || lineLabel != label::INSERT_ENDPOINT) {
    // Outside the host's calls, only results change the store: without a
    // check, an event's.
    cause.kind = CauseKind::EVENT;
    cause.lines = triggerOf(in, endpointId);
    awaitsSummary = true;
  }
  if (!in.message.lines.empty()) {
    append(cause.lines, evidence_.line(in));
  }
  evidence_.charge(sizeof(AnswerCause) + cause.requestId.size() + cause.endpointId.size());
  entity.causes.push_back(std::move(cause));
  const auto index = static_cast<uint32_t>(entity.causes.size() - 1);
  if (awaitsSummary) {
    open_[in.thread].emplace_back(entity.id, index);
  }
  return index;
}

void CauseReader::addLine(const CacheMessage& in, std::string_view entityId,
                          std::size_t lineIndex) {
  const auto open = open_.find(in.thread);
  if (open == open_.end()) {
    return;
  }
  for (const auto& [id, index] : open->second) {
    EntityRecord* entity = id == entityId ? in.cache.findEntity(id) : nullptr;
    if (entity != nullptr && index < entity->causes.size()) {
      append(entity->causes[index].lines, evidence_.line(in, lineIndex));
    }
  }
}

void CauseReader::resultApplied(const CacheMessage& in,
                                const std::vector<std::string>& eventEndpoints) {
  open_.erase(in.thread);
  summarised_ = nullptr;
  for (const std::string& endpointId : eventEndpoints) {
    const auto waiting = events_.find(endpointId);
    if (waiting != events_.end() && !waiting->second.empty()) {
      waiting->second.pop_front();
    }
  }
}

}  // namespace veranda::reachabilityCache::trace
