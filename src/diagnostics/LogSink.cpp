#include "diagnostics/LogSink.h"

#include <android/log.h>

#ifdef REACHABILITY_CACHE_LOG_SINK_FOR_TESTING
#include <atomic>
#include <thread>

#include "sync/Mutex.h"
#endif

namespace veranda::reachabilityCache {

#ifdef REACHABILITY_CACHE_LOG_SINK_FOR_TESTING
namespace {

// A writer counts itself before it takes the sink and until it is done with
// it, so that setLogSinkForTesting() knows when a sink it replaced is no
// longer in use. Writers count in the bank of the current epoch: a change of
// sink moves the epoch to the other bank and then waits for the old bank to
// empty, which only writers that took a sink before the change can delay.
// Each bank has a counter per group of threads, each in a cache line of its
// own, so that writers on different cores do not contend for one line.
constexpr unsigned COUNTERS_PER_BANK = 16;
struct alignas(64) WriterCounter {
  std::atomic<int> writers{0};
};
WriterCounter writerCounters[2][COUNTERS_PER_BANK];
std::atomic<unsigned> epoch{0};
std::atomic<unsigned> threadsSeen{0};

// The installed sink, null for the platform log.
std::atomic<LogSinkForTesting*> installedSink{nullptr};
// The last sink installed as living to the end of the process; writers use it
// without counting themselves.
std::atomic<LogSinkForTesting*> permanentSink{nullptr};
Mutex installMutex;

unsigned counterOfThisThread() {
  thread_local unsigned counter =
      threadsSeen.fetch_add(1, std::memory_order_relaxed) % COUNTERS_PER_BANK;
  return counter;
}

// Writes to the installed sink; false when none is installed any more.
bool writeToSink(int priority, const char* tag, const char* text) {
  const unsigned counter = counterOfThisThread();
  for (;;) {
    const unsigned bank = epoch.load();
    std::atomic<int>& writers = writerCounters[bank][counter].writers;
    writers.fetch_add(1);
    if (epoch.load() == bank) {
      LogSinkForTesting* const sink = installedSink.load();
      if (sink != nullptr) {
        sink->write(priority, tag, text);
      }
      writers.fetch_sub(1, std::memory_order_release);
      return sink != nullptr;
    }
    // The sink changed before this writer was counted where the change
    // waits: count again, in the new bank.
    writers.fetch_sub(1, std::memory_order_relaxed);
  }
}

}  // namespace

void setLogSinkForTesting(LogSinkForTesting* sink) {
  MutexLock lock(installMutex);
  installedSink.store(sink);
  const unsigned oldBank = epoch.load();
  epoch.store(1 - oldBank);
  for (WriterCounter& counter : writerCounters[oldBank]) {
    while (counter.writers.load() != 0) {
      std::this_thread::yield();
    }
  }
}

void setPermanentLogSinkForTesting(LogSinkForTesting* sink) {
  permanentSink.store(sink);
  setLogSinkForTesting(sink);
}
#endif

void writeLogLine(int priority, const char* tag, const char* text) {
#ifdef REACHABILITY_CACHE_LOG_SINK_FOR_TESTING
  if (LogSinkForTesting* const sink = installedSink.load(std::memory_order_acquire)) {
    // A permanent sink outlives every writer, whatever is installed meanwhile.
    if (sink == permanentSink.load(std::memory_order_relaxed)) {
      sink->write(priority, tag, text);
      return;
    }
    if (writeToSink(priority, tag, text)) {
      return;
    }
  }
#endif
  __android_log_print(priority, tag, "%s", text);
}

}  // namespace veranda::reachabilityCache
