// The figures that the report, the JSON document and the picture share.
#include <algorithm>
#include <cmath>

#include "Saturating.h"
#include "TraceOutput.h"

namespace veranda::reachabilityCache::trace {

double percentile(const std::vector<double>& sorted, double fraction) {
  const auto rank =
      static_cast<std::size_t>(std::ceil(fraction * static_cast<double>(sorted.size())));
  return sorted[std::max<std::size_t>(rank, 1) - 1];
}

AnswerRecord answerBefore(const CacheRecord& cache) {
  return cache.creationSeen
             ? AnswerRecord{}
             : AnswerRecord{NO_TIME, Answer::UNKNOWN, false, UnknownReason::CAPTURE_START, 0};
}

std::vector<EntitySpan> entitySpans(const EntityRecord& entity, Micros start, Micros end,
                                    const AnswerRecord& before) {
  std::vector<EntitySpan> spans;
  EntitySpan current{start, start, before.answer, before.inferred, before.reason};
  for (const AnswerRecord& answer : entity.answers) {
    if (answer.at == NO_TIME) {
      continue;
    }
    current.to = std::max(answer.at, current.from);
    if (current.to > current.from) {
      spans.push_back(current);
    }
    current = {current.to, current.to, answer.answer, answer.inferred, answer.reason};
  }
  current.to = std::max(end, current.from);
  spans.push_back(current);
  return spans;
}

EntityFigures entityFigures(const EntityRecord& entity, Micros cacheEnd,
                            const AnswerRecord& before) {
  EntityFigures figures;
  figures.changes = entity.changes.size();
  figures.last = entity.answers.empty() ? before : AnswerRecord{};
  for (const AnswerRecord& answer : entity.answers) {
    figures.flaps +=
        figures.last.answer == Answer::REACHABLE && answer.answer == Answer::UNREACHABLE ? 1 : 0;
    figures.last = answer;
  }
  if (!entity.answers.empty() && entity.answers.front().at != NO_TIME && cacheEnd != NO_TIME) {
    const Micros first = entity.answers.front().at;
    for (const EntitySpan& span : entitySpans(entity, first, cacheEnd, AnswerRecord{})) {
      const double seconds = static_cast<double>(saturatingSub(span.to, span.from)) / 1e6;
      figures.unreachableSeconds += span.answer == Answer::UNREACHABLE ? seconds : 0;
      figures.unknownSeconds += span.answer == Answer::UNKNOWN ? seconds : 0;
    }
  }
  return figures;
}

std::vector<double> answerLatenciesMs(const CacheRecord& cache) {
  std::vector<double> latencies;
  for (const std::vector<CheckRecord>* list : {&cache.cycles, &cache.manualChecks}) {
    for (const CheckRecord& check : *list) {
      if (check.answered && check.answeredAt != NO_TIME && check.start != NO_TIME) {
        latencies.push_back(static_cast<double>(saturatingSub(check.answeredAt, check.start)) /
                            1000);
      }
    }
  }
  std::sort(latencies.begin(), latencies.end());
  return latencies;
}

std::vector<double> cycleGapsSeconds(const CacheRecord& cache) {
  std::vector<double> gaps;
  for (std::size_t i = 1; i < cache.cycles.size(); ++i) {
    if (cache.cycles[i].start != NO_TIME && cache.cycles[i - 1].start != NO_TIME) {
      gaps.push_back(
          static_cast<double>(saturatingSub(cache.cycles[i].start, cache.cycles[i - 1].start)) /
          1e6);
    }
  }
  std::sort(gaps.begin(), gaps.end());
  return gaps;
}

}  // namespace veranda::reachabilityCache::trace
