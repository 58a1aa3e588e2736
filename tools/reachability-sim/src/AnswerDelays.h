// How long the simulated driver takes to answer each check of a run.
#pragma once

#include <cstdint>

namespace veranda::reachabilityCache::sim {

// Draws each answer's delay uniformly from [minMs, maxMs], the same numbers
// for the same seed on every platform. A delay that is a whole number of
// refresh intervals would bring the answer exactly when a later periodic
// cycle starts, where the two would race; it is a millisecond longer instead.
// Checks start at periodic cycles only, so no answer meets a cycle.
//
// Thread safety: none; the cache's worker draws, one check at a time.
class AnswerDelays {
 public:
  AnswerDelays(int64_t minMs, int64_t maxMs, int64_t intervalSeconds, uint32_t seed);

  int64_t next();

 private:
  int64_t minMs_;
  int64_t spanMs_;  // maxMs - minMs + 1
  int64_t intervalMs_;
  uint64_t random_;
};

}  // namespace veranda::reachabilityCache::sim
