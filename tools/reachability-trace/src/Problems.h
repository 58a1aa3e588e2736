// The problems of a cache: counted where their lines are read, and the
// cycles' rhythm checked once the capture has ended.
#pragma once

#include <cstdint>

#include "TraceModel.h"

namespace veranda::reachabilityCache::trace {

// Counts `count` more problems of `kind`; the first one's time is kept.
void countProblem(CacheRecord& cache, const char* kind, Micros at, uint64_t count = 1);

// Cycles of a second periodic chain, and gaps between cycles that stray
// from the configured interval by more than a quarter of it (or than the
// clock's `resolution`).
void checkRhythm(CacheRecord& cache, Micros resolution);

}  // namespace veranda::reachabilityCache::trace
