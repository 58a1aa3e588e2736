#include "ChangeReader.h"

#include <algorithm>
#include <optional>
#include <set>
#include <utility>

#include "Problems.h"
#include "diagnostics/LogSchema.h"

namespace veranda::reachabilityCache::trace {

using namespace logSchema;  // the names the lines are read with
namespace {

using Effect = EntityAnswers::Effect;

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
  const std::optional<std::string_view> endpointId = in.line.get(key::ENDPOINT_ID);
  const std::optional<std::string_view> entityId = in.line.get(key::ENTITY_ID);
  const std::optional<std::string_view> reachable = in.line.get(key::IS_REACHABLE);
  if (!endpointId || !entityId || !reachable) {
    return false;
  }
  EntityRecord* record = in.entity(*entityId);
  if (record == nullptr) {
    return true;  // past the limits
  }
  ChangeRecord change;
  change.at = in.at;
  change.message = in.number;
  change.endpoint = record->endpointIndex(*endpointId, in.trace.limits.endpointsPerEntity);
  change.reachable = *reachable == value::TRUE_TEXT;
  std::vector<EvidenceLine> evidence;
  if (evidence_.covers(*entityId, in.at)) {
    evidence = causes_.triggerOf(in, *endpointId);
    evidence.push_back(evidence_.line(in));
  }
  const bool byCheck = checks_.answering(in.cache, in.thread) != nullptr;
  notified_ = true;
  // Listeners hear only of changes: the entity was the other way before.
  answers_.reachableBefore(in, *entityId, *endpointId, !change.reachable, true);
  const std::size_t kept = keep(in, *record, change, std::move(evidence));
  answers_.apply(in, *entityId, *endpointId,
                 !change.reachable ? Effect::CLEAR : (byCheck ? Effect::CHECK : Effect::EVENT),
                 true);
  notes_[in.thread].push_back(
      {std::string(*endpointId), std::string(*entityId), change.reachable, kept});
  causes_.addLine(in, *entityId);
  return true;
}

std::size_t ChangeReader::keep(const CacheMessage& in, EntityRecord& record,
                               const ChangeRecord& change, std::vector<EvidenceLine> evidence) {
  ++record.changeCount;
  Trace& trace = in.trace;
  const bool story = record.id == in.storyEntity;
  if (story ? record.changes.size() >= trace.limits.storyChanges
            : trace.keptChanges >= trace.limits.changes) {
    ++record.changesLeftOut;
    ++(story ? trace.leftOut.storyChanges : trace.leftOut.changes);
    return NOT_KEPT;
  }
  ++trace.keptChanges;
  record.changes.push_back(change);
  if (!evidence.empty()) {
    record.evidence.resize(record.changes.size());
    record.evidence.back() = std::move(evidence);
  }
  return record.changes.size() - 1;
}

std::string ChangeReader::summary(const CacheMessage& in) {
  const std::optional<uint64_t> changed = in.line.number(key::CHANGED);
  const bool cut = in.message.text.size() >= MAX_MESSAGE_BYTES;
  std::vector<std::string_view> lines = entryLines(in.line.get(key::DETAILS).value_or(""));
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
  std::string ambiguity = cut ? std::string() : checkEntries(in.line, lines, entries);

  CheckRecord* answered = checks_.takeSummarised(in, cut, entries.size());
  causes_.summaryOf(answered);
  if (answered != nullptr) {
    answered->summarised = true;
    answered->reachable = in.line.number(key::REACHABLE).value_or(0);
    answered->unreachable = in.line.number(key::UNREACHABLE).value_or(0);
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
    if (ambiguity.empty()) {
      after.erase({std::string(entry.entityId), std::string(entry.endpointId)});
      applyEntry(in, entry, entryText, answered);
    }
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
    std::set<std::pair<std::string, std::string>> told;
    for (const auto& entry : entries) {
      told.emplace(entry.first.entityId, entry.first.endpointId);
    }
    answers_.loseUntold(in, told);
  }
  causes_.resultApplied(in, eventEndpoints);
  return ambiguity;
}

std::string ChangeReader::checkEntries(
    const LibraryLine& line, const std::vector<std::string_view>& lines,
    const std::vector<std::pair<SummaryEntry, std::string_view>>& entries) {
  if (entries.size() != lines.size()) {
    return "an entry of the summary that cannot be read";
  }
  uint64_t reachable = 0;
  uint64_t unreachable = 0;
  uint64_t changed = 0;
  for (const auto& [entry, text] : entries) {
    reachable += entry.reachable && !entry.insertFailed ? 1 : 0;
    unreachable += !entry.reachable && !entry.insertFailed ? 1 : 0;
    changed += entry.changed ? 1 : 0;
  }
  if (line.number(key::REACHABLE) != reachable || line.number(key::UNREACHABLE) != unreachable ||
      line.number(key::CHANGED) != changed) {
    return "entries that do not add up to the summary's counts";
  }
  return "";
}

void ChangeReader::applyEntry(const CacheMessage& in, const SummaryEntry& entry,
                              std::string_view entryText, const CheckRecord* answered) {
  if (entry.entityId.empty()) {
    if (answered == nullptr) {
      countProblem(in.cache, UNKNOWN_ENDPOINT, in.at);
    }
    return;
  }
  EntityRecord* record = in.entity(entry.entityId);
  if (record == nullptr) {
    return;  // past the limits
  }
  const std::size_t limit = in.trace.limits.endpointsPerEntity;
  const uint32_t endpoint = record->endpointIndex(entry.endpointId, limit);
  const uint16_t adapter = entry.adapterName.empty()
                               ? ChangeRecord::NO_ADAPTER
                               : record->adapterIndex(entry.adapterName, limit);
  if (!entry.insertFailed) {
    // "reachable" and "becameUnreachable" follow a reachable entity.
    answers_.reachableBefore(in, entry.entityId, entry.endpointId, entry.reachable != entry.changed,
                             false);
    // An event's result carries no adapter and no driver type that reaches.
    const Effect effect = !entry.reachable ? (entry.changed ? Effect::CLEAR : Effect::NONE)
                          : entry.adapterName.empty() ? Effect::EVENT
                                                      : Effect::CHECK;
    answers_.apply(in, entry.entityId, entry.endpointId, effect, false);
  } else if (!entry.reachable) {
    // Clearing failed: the entity was reachable, and nothing changed.
    answers_.reachableBefore(in, entry.entityId, entry.endpointId, true, false);
    answers_.apply(in, entry.entityId, entry.endpointId, Effect::NONE, false);
  }
  const std::size_t entryLine = lineHolding(in.message, entryText);
  causes_.addLine(in, entry.entityId);
  causes_.addLine(in, entry.entityId, entryLine);
  if (!entry.changed) {
    return;
  }
  const std::size_t index = changeOf(in, *record, entry, endpoint);
  if (index == NOT_KEPT) {
    return;
  }
  record->changes[index].adapter = adapter;
  if (evidence_.covers(entry.entityId, in.at)) {
    record->evidence.resize(std::max(record->evidence.size(), index + 1));
    std::vector<EvidenceLine>& evidence = record->evidence[index];
    evidence.push_back(evidence_.line(in));
    if (entryLine != 0) {
      evidence.push_back(evidence_.line(in, entryLine));
    }
  }
}

std::size_t ChangeReader::changeOf(const CacheMessage& in, EntityRecord& record,
                                   const SummaryEntry& entry, uint32_t endpoint) {
  std::vector<Note>& notes = notes_[in.thread];
  const auto note = std::find_if(notes.begin(), notes.end(), [&](const Note& told) {
    return told.endpointId == entry.endpointId && told.entityId == entry.entityId &&
           told.reachable == entry.reachable;
  });
  if (note != notes.end()) {  // the notification line told it already
    const std::size_t index = note->change;
    notes.erase(note);
    return index;
  }
  ChangeRecord change;
  change.at = in.at;
  change.message = in.number;
  change.endpoint = endpoint;
  change.reachable = entry.reachable;
  return keep(in, record, change,
              evidence_.covers(entry.entityId, in.at) ? causes_.triggerOf(in, entry.endpointId)
                                                      : std::vector<EvidenceLine>{});
}

}  // namespace veranda::reachabilityCache::trace
