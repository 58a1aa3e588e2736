#include "ChangeReader.h"

#include <algorithm>
#include <optional>
#include <set>
#include <utility>

#include "Problems.h"

namespace veranda::reachabilityCache::trace {
namespace {

using EndpointState = EntityAnswers::EndpointState;

// The index of the physical line of `message` that holds `text` (a line of
// a multi-line message), or 0 for its first line.
std::size_t lineHolding(const LogMessage& message, std::string_view text) {
  for (std::size_t i = 0; i < message.lines.size(); ++i) {
    const std::string& line = message.lines[i];
    if (line.size() >= text.size() &&
        line.compare(line.size() - text.size(), text.size(), text.data(), text.size()) == 0) {
      return i;
    }
  }
  return 0;
}

// The lines of a summary's details after the first (which is empty).
std::vector<std::string_view> entryLines(std::string_view details) {
  std::vector<std::string_view> lines;
  for (std::size_t from = details.find('\n'); from != std::string_view::npos;) {
    const std::size_t to = details.find('\n', from + 1);
    lines.push_back(details.substr(from + 1, to == std::string_view::npos ? to : to - from - 1));
    from = to;
  }
  return lines;
}

}  // namespace

bool ChangeReader::notification(const CacheMessage& in) {
  const std::optional<std::string_view> endpointId = in.line.get("endpointId");
  const std::optional<std::string_view> entityId = in.line.get("entityId");
  const std::optional<std::string_view> reachable = in.line.get("isReachable");
  if (!endpointId || !entityId || !reachable) {
    return false;
  }
  EntityRecord& record = in.cache.entity(*entityId);
  record.endpoints.emplace(*endpointId);
  ChangeRecord change;
  change.at = in.at;
  change.endpointId = std::string(*endpointId);
  change.reachable = *reachable == "true";
  if (evidence_.covers(*entityId, in.at)) {
    change.evidence = causes_.triggerOf(in, *endpointId);
    change.evidence.push_back(evidence_.line(in));
  }
  const bool confirmed = checks_.answering(in.cache, in.thread) != nullptr;
  notified_ = true;
  // Listeners hear only of changes: the entity was the other way before.
  answers_.correct(in, *entityId, *endpointId, !change.reachable);
  record.changes.push_back(std::move(change));
  const bool isReachable = record.changes.back().reachable;
  answers_.hold(in, *entityId, *endpointId,
                !isReachable ? EndpointState::UNREACHABLE
                             : (confirmed ? EndpointState::CONFIRMED : EndpointState::UNCONFIRMED),
                true);
  notes_[in.thread].push_back(
      {std::string(*endpointId), std::string(*entityId), isReachable, record.changes.size() - 1});
  causes_.addLine(in, *entityId);
  return true;
}

void ChangeReader::summary(const CacheMessage& in) {
  const std::optional<uint64_t> changed = in.line.number("changed");
  const bool cut = in.message.text.size() >= MAX_MESSAGE_BYTES;
  std::vector<std::string_view> lines = entryLines(in.line.get("details").value_or(""));
  if (cut && !lines.empty()) {
    lines.pop_back();  // the platform cut it somewhere: it may read as something else
    countProblem(in.cache, SUMMARY_CUT, in.at);
  }
  std::vector<std::pair<SummaryEntry, std::string_view>> entries;  // with its line
  for (std::string_view text : lines) {
    if (const std::optional<SummaryEntry> entry = parseSummaryEntry(text)) {
      entries.emplace_back(*entry, text);
    }
  }

  CheckRecord* answered = checks_.takeSummarised(in, cut, entries.size());
  causes_.summaryOf(answered);
  if (answered != nullptr) {
    answered->summarised = true;
    answered->reachable = in.line.number("reachable").value_or(0);
    answered->unreachable = in.line.number("unreachable").value_or(0);
    answered->changed = changed.value_or(0);
  } else {
    ++in.cache.eventsApplied;
  }
  in.cache.changes += changed.value_or(0);

  // The store's lines of this result came before it: apply the result
  // entry by entry from the states before them, then keep what those lines
  // did to endpoints whose entries the platform cut.
  EntityAnswers::States after = answers_.rollBack(in.thread);
  std::vector<std::string> eventEndpoints;
  for (const auto& [entry, entryText] : entries) {
    after.erase({std::string(entry.entityId), std::string(entry.endpointId)});
    applyEntry(in, entry, entryText, answered);
    if (answered == nullptr) {
      eventEndpoints.emplace_back(entry.endpointId);
    }
  }
  if (in.message.tid) {
    notes_[in.thread].clear();  // a thread's notifications all come before its summary
  }
  answers_.restore(in, after);
  if (cut && answered != nullptr && !notified_) {
    // Without notification lines, what the lost entries said is unknown.
    std::set<std::string> told;
    for (const auto& entry : entries) {
      told.emplace(entry.first.entityId);
    }
    answers_.loseUntold(in, told);
  }
  causes_.resultApplied(in, eventEndpoints);
}

void ChangeReader::applyEntry(const CacheMessage& in, const SummaryEntry& entry,
                              std::string_view entryText, const CheckRecord* answered) {
  if (entry.entityId.empty()) {
    if (answered == nullptr) {
      countProblem(in.cache, UNKNOWN_ENDPOINT, in.at);
    }
    return;
  }
  EntityRecord& record = in.cache.entity(entry.entityId);
  record.endpoints.emplace(entry.endpointId);
  if (!entry.adapterName.empty()) {
    record.adapters.emplace(entry.adapterName);
  }
  if (!entry.insertFailed) {
    // "reachable" and "becameUnreachable" follow a reachable entity.
    answers_.correct(in, entry.entityId, entry.endpointId, entry.reachable != entry.changed);
    // An event's result carries no adapter and no capabilities.
    answers_.hold(in, entry.entityId, entry.endpointId,
                  !entry.reachable            ? EndpointState::UNREACHABLE
                  : entry.adapterName.empty() ? EndpointState::UNCONFIRMED
                                              : EndpointState::CONFIRMED,
                  false);
  }
  const std::size_t entryLine = lineHolding(in.message, entryText);
  causes_.addLine(in, entry.entityId);
  causes_.addLine(in, entry.entityId, entryLine);
  if (!entry.changed) {
    return;
  }
  ChangeRecord& change = changeOf(in, record, entry);
  change.adapterName = std::string(entry.adapterName);
  if (evidence_.covers(entry.entityId, in.at)) {
    change.evidence.push_back(evidence_.line(in));
    if (entryLine != 0) {
      change.evidence.push_back(evidence_.line(in, entryLine));
    }
  }
}

ChangeRecord& ChangeReader::changeOf(const CacheMessage& in, EntityRecord& record,
                                     const SummaryEntry& entry) {
  std::vector<Note>& notes = notes_[in.thread];
  const auto note = std::find_if(notes.begin(), notes.end(), [&](const Note& told) {
    return told.endpointId == entry.endpointId && told.entityId == entry.entityId &&
           told.reachable == entry.reachable;
  });
  if (note != notes.end()) {  // the notification line told it already
    const std::size_t index = note->change;
    notes.erase(note);
    return record.changes[index];
  }
  record.changes.push_back({});
  ChangeRecord& change = record.changes.back();
  change.at = in.at;
  change.endpointId = std::string(entry.endpointId);
  change.reachable = entry.reachable;
  if (evidence_.covers(entry.entityId, in.at)) {
    change.evidence = causes_.triggerOf(in, entry.endpointId);
  }
  return change;
}

}  // namespace veranda::reachabilityCache::trace
