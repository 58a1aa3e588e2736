// The bounded spinning that the library's locks do before a waiter parks.
#pragma once

#include <chrono>

namespace veranda::reachabilityCache {

// How long a waiter for one of the library's locks retries before it parks.
// The library's critical sections are short: a query holds the store for
// under a microsecond, a step of a cycle for one or two. Measured on the
// benchmark machine, 99.6 % of the store's sections end within 2 us and almost
// none last from 4 to 16 us; 8 us covers what is left of one section plus one
// lost race, with room for cores three times slower. A holder still busy by
// then is in a long section (the stale sweep's copy of the index) or lost its
// core, and spinning on would only take a core from it. (The measurement is
// in BENCHMARKS.md, under the notes.)
inline constexpr std::chrono::nanoseconds LOCK_SPIN_TIME{8000};

// Tells the processor that this thread is spinning (x86 "pause", arm
// "yield"): it lets the other hardware thread of the core run and saves
// power, and on x86 avoids the pipeline flush when the wait ends.
inline void spinWaitHint() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#elif defined(__aarch64__) || defined(__arm__)
  asm volatile("yield" ::: "memory");
#endif
}

// Calls `ready` with the spin-wait hint between calls until it returns true
// or LOCK_SPIN_TIME has passed. True when `ready` returned true.
template <typename Ready>
bool spinUntil(Ready&& ready) {
  // Attempts between two looks at the clock: a look costs about as much as an
  // attempt.
  constexpr int ATTEMPTS_PER_CLOCK_READ = 8;
  const auto deadline = std::chrono::steady_clock::now() + LOCK_SPIN_TIME;
  do {
    for (int attempt = 0; attempt < ATTEMPTS_PER_CLOCK_READ; ++attempt) {
      spinWaitHint();
      if (ready()) {
        return true;
      }
    }
  } while (std::chrono::steady_clock::now() < deadline);
  return false;
}

}  // namespace veranda::reachabilityCache
