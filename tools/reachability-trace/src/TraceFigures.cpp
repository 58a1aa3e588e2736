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
  EntitySpan current{start, start, before.answer, before.inferred, before.reason, nullptr};
  // The answers past the limits are unknown where they were.
  const AnswerRecord gap{
      entity.answersLeftOutFrom, Answer::UNKNOWN, false, UnknownReason::LEFT_OUT, 0, NO_CAUSE};
  const std::size_t gapAt = entity.answersLeftOut > 0 ? entity.answersGap : SIZE_MAX;
  for (std::size_t i = 0; i <= entity.answers.size(); ++i) {
    for (const AnswerRecord* answer :
         {i == gapAt ? &gap : nullptr, i < entity.answers.size() ? &entity.answers[i] : nullptr}) {
      if (answer == nullptr || answer->at == NO_TIME) {
        continue;
      }
      current.to = std::max(answer->at, current.from);
      if (current.to > current.from) {
        spans.push_back(current);
      }
      current = {current.to,       current.to,     answer->answer,
                 answer->inferred, answer->reason, answer == &gap ? nullptr : answer};
    }
  }
  current.to = std::max(end, current.from);
  spans.push_back(current);
  return spans;
}

EntityFigures entityFigures(const EntityRecord& entity, Micros cacheEnd,
                            const AnswerRecord& before) {
  // The tally of the final answers, then those a line could still have
  // taken back, then the last one's span to the cache's end.
  AnswerTally tally = entity.tally;
  for (std::size_t i = entity.settled; i < entity.answers.size(); ++i) {
    const AnswerRecord& answer = entity.answers[i];
    if (tally.open) {
      tallySpan(tally, *tally.open, answer.at);
      tally.flaps +=
          tally.open->answer == Answer::REACHABLE && answer.answer == Answer::UNREACHABLE ? 1 : 0;
    }
    tally.open = answer;
  }
  EntityFigures figures;
  figures.changes = entity.changeCount;
  figures.last = tally.open.value_or(before);
  if (tally.open) {
    tallySpan(tally, *tally.open, cacheEnd);
  }
  figures.flaps = tally.flaps;
  figures.unreachableSeconds = static_cast<double>(tally.unreachable) / 1e6;
  figures.unknownSeconds = static_cast<double>(tally.unknown) / 1e6;
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
