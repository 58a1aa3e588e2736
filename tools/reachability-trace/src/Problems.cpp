#include "Problems.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "Saturating.h"

namespace veranda::reachabilityCache::trace {

void countProblem(CacheRecord& cache, const char* kind, Micros at, uint64_t count) {
  ProblemRecord& record = cache.problems[kind];
  if (record.count == 0) {
    record.first = at;
  }
  record.count += count;
  if (record.times.size() < MAX_PROBLEM_TIMES && at != NO_TIME) {
    record.times.push_back(at);
  }
}

void checkRhythm(CacheRecord& cache, Micros resolution) {
  if (!cache.intervalSeconds || *cache.intervalSeconds <= 0) {
    return;
  }
  const Micros interval = saturatingMul(*cache.intervalSeconds, 1000000);
  const Micros tolerance = std::max(interval / 4, resolution);
  std::vector<std::pair<Micros, Micros>> gaps;  // (gap, time of the later cycle)
  for (std::size_t i = 1; i < cache.cycles.size(); ++i) {
    const Micros from = cache.cycles[i - 1].start;
    const Micros to = cache.cycles[i].start;
    if (from != NO_TIME && to != NO_TIME) {
      gaps.emplace_back(saturatingSub(to, from), to);
    }
  }
  if (gaps.empty()) {
    return;
  }
  std::vector<Micros> sorted;
  sorted.reserve(gaps.size());
  for (const auto& gap : gaps) {
    sorted.push_back(gap.first);
  }
  std::nth_element(sorted.begin(), sorted.begin() + static_cast<std::ptrdiff_t>(sorted.size() / 2),
                   sorted.end());
  const Micros median = sorted[sorted.size() / 2];
  const bool twoChains = gaps.size() >= 3 && saturatingAdd(median, tolerance) < interval / 4 * 3;
  if (twoChains && cache.problems.count(DUPLICATE_CHAIN) == 0) {
    countProblem(cache, DUPLICATE_CHAIN, gaps.front().second);
  }
  if (twoChains || cache.problems.count(DUPLICATE_CHAIN) > 0) {
    return;  // the gaps of two chains say nothing about drift
  }
  for (const auto& [gap, atTime] : gaps) {
    if (gap > saturatingAdd(interval, tolerance) || gap < saturatingSub(interval, tolerance)) {
      countProblem(cache, INTERVAL_DRIFT, atTime);
    }
  }
}

}  // namespace veranda::reachabilityCache::trace
