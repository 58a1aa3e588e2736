#include "TraceWindow.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace veranda::reachabilityCache::trace {
namespace {

template <typename Record>
void keepWithin(std::vector<Record>& records, const TraceWindow& window, Micros Record::*at) {
  records.erase(std::remove_if(records.begin(), records.end(),
                               [&](const Record& record) {
                                 return record.*at == NO_TIME || !window.contains(record.*at);
                               }),
                records.end());
}

// The answers from the window's start on: the one in force at its start,
// then those told in it.
void clipAnswers(EntityRecord& entity, const TraceWindow& window) {
  std::vector<AnswerRecord> kept;
  for (const AnswerRecord& answer : entity.answers) {
    if (window.before(answer.at)) {
      kept.assign(1, answer);
      kept.front().at = window.from;
    } else if (window.contains(answer.at)) {
      kept.push_back(answer);
    }
  }
  if (!kept.empty() && kept.front().answer == Answer::ABSENT) {
    kept.erase(kept.begin());  // no need to say it was not cached yet
  }
  // Those dropped came before any left out, which are all in the window.
  const std::size_t dropped = entity.answers.size() - kept.size();
  entity.answersGap -= std::min(entity.answersGap, dropped);
  entity.answers = std::move(kept);
  entity.settled = entity.answers.size();
}

// The changes in the window, with their evidence where it was kept.
void clipChanges(EntityRecord& entity, const TraceWindow& window) {
  std::vector<ChangeRecord> changes;
  std::vector<std::vector<EvidenceLine>> evidence;
  for (std::size_t i = 0; i < entity.changes.size(); ++i) {
    if (entity.changes[i].at != NO_TIME && window.contains(entity.changes[i].at)) {
      changes.push_back(entity.changes[i]);
      if (i < entity.evidence.size()) {
        evidence.resize(changes.size());
        evidence.back() = std::move(entity.evidence[i]);
      }
    }
  }
  entity.changes = std::move(changes);
  entity.evidence = std::move(evidence);
}

void clipCache(CacheRecord& cache, const TraceWindow& window) {
  if (cache.creationSeen && window.before(cache.created)) {
    cache.creationSeen = false;
  }
  if (window.before(cache.firstSeen)) {
    cache.firstSeen = window.from;
  }
  keepWithin(cache.cycles, window, &CheckRecord::start);
  keepWithin(cache.manualChecks, window, &CheckRecord::start);
  std::vector<EntityRecord> entities;
  for (EntityRecord& entity : cache.entities) {
    clipChanges(entity, window);
    clipAnswers(entity, window);
    if (!entity.changes.empty() || !entity.answers.empty()) {
      entities.push_back(std::move(entity));
    }
  }
  cache.entities = std::move(entities);
  cache.entityIndex.clear();
  for (std::size_t i = 0; i < cache.entities.size(); ++i) {
    cache.entityIndex.emplace(cache.entities[i].id, i);
  }
}

}  // namespace

void forgetBeforeWindow(Trace& trace, CacheRecord& cache, const TraceWindow& window) {
  cache.problems.clear();
  cache.metrics.clear();
  cache.eventsReceived = 0;
  cache.eventsApplied = 0;
  cache.changes = 0;
  cache.rateLimitNotices = 0;
  cache.expiredLines = 0;
  cache.identicalLines = 0;
  cache.firstRateLimit = NO_TIME;
  cache.ambiguousLines = 0;
  cache.ambiguous.clear();
  for (EntityRecord& entity : cache.entities) {
    // The changes so far are before the window, and so are the final answers
    // but the last, which may be in force at its start.
    trace.keptChanges -= std::min(trace.keptChanges, entity.changes.size());
    entity.changes.clear();
    entity.evidence.clear();
    entity.changeCount = 0;
    entity.changesLeftOut = 0;
    if (entity.settled > 1) {
      const std::size_t dropped = entity.settled - 1;
      trace.keptAnswers -= std::min(trace.keptAnswers, dropped);
      entity.answers.erase(entity.answers.begin(),
                           entity.answers.begin() + static_cast<std::ptrdiff_t>(dropped));
      entity.settled = 1;
    }
    entity.answersLeftOut = 0;
    entity.answersLeftOutFrom = NO_TIME;
    entity.answersGap = 0;
    AnswerTally& tally = entity.tally;
    tally.flaps = 0;
    tally.unreachable = 0;
    tally.unknown = 0;
    if (tally.open) {
      tally.open->at = window.from;
    }
  }
}

void clipToWindow(Trace& trace, const TraceWindow& window) {
  if (!window.limits()) {
    return;
  }
  trace.window = window;
  std::vector<CacheRecord> caches;
  for (CacheRecord& cache : trace.caches) {
    if (!window.before(cache.endTime())) {
      clipCache(cache, window);
      caches.push_back(std::move(cache));
    }
  }
  trace.caches = std::move(caches);
}

}  // namespace veranda::reachabilityCache::trace
