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
void clipAnswers(std::vector<AnswerRecord>& answers, const TraceWindow& window) {
  std::vector<AnswerRecord> kept;
  for (const AnswerRecord& answer : answers) {
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
  answers = std::move(kept);
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
    keepWithin(entity.changes, window, &ChangeRecord::at);
    clipAnswers(entity.answers, window);
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
