#include "CauseReader.h"

namespace veranda::reachabilityCache::trace {
namespace {

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
  if (line.label == "performPeriodicUpdate" && line.get("endpointCount")) {
    sweeping_[in.thread] = evidence_.line(in);
  } else if (line.label == "checkReachability") {
    sweeping_.erase(in.thread);
  } else if (line.label == "stateChangeCallback" && line.has("action", "invokingCallback")) {
    std::deque<EvidenceLine>& waiting = events_[std::string(line.get("endpointId").value_or(""))];
    if (waiting.size() == MAX_WAITING_EVENTS) {
      waiting.pop_front();
    }
    waiting.push_back(evidence_.line(in));
  }
}

const CheckRecord* CauseReader::checkOf(const CacheMessage& in) const {
  return in.line.label == "processReachabilityResults" ? summarised_
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
                                std::string_view endpointId, Answer answer) {
  if (!evidence_.covers(entity.id, in.at)) {
    return NO_CAUSE;
  }
  AnswerCause cause;
  cause.endpointId = std::string(endpointId);
  const std::string_view label = in.line.label;
  bool awaitsSummary = false;
  if (answer == Answer::UNKNOWN) {
    cause.kind = CauseKind::SUMMARY_CUT;
  } else if (label == "isEntityReachable") {
    cause.kind = CauseKind::QUERY;
  } else if (label == "removeEntity") {
    cause.kind = CauseKind::HOST_REMOVAL;
  } else if (label == "clear") {
    cause.kind = CauseKind::HOST_INVALIDATION;
  } else if (label == "removeEndpoint") {
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
  } else if (pendingEvent(endpointId) != nullptr || label != "insertEndpoint") {
    // Outside the host's calls, only results change the store: without a
    // check, an event's.
    cause.kind = CauseKind::EVENT;
    cause.lines = triggerOf(in, endpointId);
    awaitsSummary = true;
  }
  append(cause.lines, evidence_.line(in));
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
    if (id == entityId) {
      append(in.cache.entity(id).causes[index].lines, evidence_.line(in, lineIndex));
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
