#include "AnswerDelays.h"

#include "SplitMix.h"

namespace veranda::reachabilityCache::sim {

AnswerDelays::AnswerDelays(int64_t minMs, int64_t maxMs, int64_t intervalSeconds, uint32_t seed)
    : minMs_(minMs),
      spanMs_(maxMs - minMs + 1),
      intervalMs_(intervalSeconds * 1000),
      random_(seed) {}

int64_t AnswerDelays::next() {
  const int64_t delayMs =
      minMs_ + static_cast<int64_t>(nextRandom(random_) % static_cast<uint64_t>(spanMs_));
  const bool meetsCycle = delayMs > 0 && intervalMs_ > 0 && delayMs % intervalMs_ == 0;
  return meetsCycle ? delayMs + 1 : delayMs;
}

}  // namespace veranda::reachabilityCache::sim
