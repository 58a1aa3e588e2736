// The figures that the report, the JSON document and the picture share.
#include <algorithm>

#include "TraceOutput.h"

namespace veranda::reachabilityCache::trace {
namespace {

// A change or a departure, in capture order.
struct Step {
  Micros at;
  uint64_t sequence;
  ToldState state;
};

std::vector<Step> steps(const EntityRecord& entity) {
  std::vector<Step> result;
  for (const ChangeRecord& change : entity.changes) {
    result.push_back({change.at, change.sequence,
                      change.reachable ? ToldState::kReachable : ToldState::kUnreachable});
  }
  for (const PresenceRecord& presence : entity.presence) {
    // A record enters the cache reachable (a check's answer or the host's own).
    result.push_back({presence.at, presence.sequence,
                      presence.present ? ToldState::kReachable : ToldState::kAbsent});
  }
  std::stable_sort(result.begin(), result.end(),
                   [](const Step& a, const Step& b) { return a.sequence < b.sequence; });
  return result;
}

}  // namespace

std::vector<EntitySpan> entitySpans(const EntityRecord& entity, Micros start, Micros end) {
  std::vector<EntitySpan> spans;
  EntitySpan current{start, start, ToldState::kAbsent};
  for (const Step& step : steps(entity)) {
    if (step.at == kNoTime || step.state == current.state) {
      continue;
    }
    current.to = std::max(step.at, current.from);
    if (current.to > current.from) {
      spans.push_back(current);
    }
    current = {current.to, current.to, step.state};
  }
  current.to = std::max(end, current.from);
  spans.push_back(current);
  return spans;
}

EntityFigures entityFigures(const EntityRecord& entity, Micros cacheEnd) {
  EntityFigures figures;
  figures.changes = entity.changes.size();
  bool wasReachable = false;
  for (const ChangeRecord& change : entity.changes) {
    figures.flaps += wasReachable && !change.reachable ? 1 : 0;
    wasReachable = change.reachable;
  }
  if (!entity.changes.empty()) {
    figures.lastReachable = entity.changes.back().reachable;
  }
  const Micros start = entity.changes.empty() ? cacheEnd : entity.changes.front().at;
  if (start != kNoTime && cacheEnd != kNoTime) {
    for (const EntitySpan& span : entitySpans(entity, start, cacheEnd)) {
      if (span.state == ToldState::kUnreachable) {
        figures.unreachableSeconds += static_cast<double>(span.to - span.from) / 1e6;
      }
    }
  }
  return figures;
}

std::vector<double> answerLatenciesMs(const CacheRecord& cache) {
  std::vector<double> latencies;
  for (const std::vector<CheckRecord>* list : {&cache.cycles, &cache.manualChecks}) {
    for (const CheckRecord& check : *list) {
      if (check.answered && check.answeredAt != kNoTime && check.start != kNoTime) {
        latencies.push_back(static_cast<double>(check.answeredAt - check.start) / 1000);
      }
    }
  }
  std::sort(latencies.begin(), latencies.end());
  return latencies;
}

std::vector<double> cycleGapsSeconds(const CacheRecord& cache) {
  std::vector<double> gaps;
  for (std::size_t i = 1; i < cache.cycles.size(); ++i) {
    if (cache.cycles[i].start != kNoTime && cache.cycles[i - 1].start != kNoTime) {
      gaps.push_back(static_cast<double>(cache.cycles[i].start - cache.cycles[i - 1].start) / 1e6);
    }
  }
  std::sort(gaps.begin(), gaps.end());
  return gaps;
}

}  // namespace veranda::reachabilityCache::trace
