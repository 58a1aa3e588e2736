// One cache of the capture as the shared timeline picture.
#include "Saturating.h"
#include "TraceOutput.h"

namespace veranda::reachabilityCache::trace {
namespace {

int64_t msSince(Micros start, Micros at) { return saturatingSub(at, start) / 1000; }

}  // namespace

tools::TimelinePicture tracePicture(const Trace& trace, std::size_t cacheIndex,
                                    const std::string& captureName) {
  const CacheRecord& cache = trace.caches.at(cacheIndex);
  const Micros start = cache.startTime();
  const Micros end = cache.endTime();
  tools::TimelinePicture picture;
  picture.title = "Reachability over time: " + captureName;
  if (cache.pid) {
    picture.title += " (pid " + std::to_string(*cache.pid) + ")";
  }
  picture.note =
      std::to_string(cache.entities.size()) + " entities" +
      (cache.intervalSeconds ? ", refresh every " + std::to_string(*cache.intervalSeconds) + " s"
                             : std::string()) +
      ", " + std::to_string(cache.changes) + " changes told to listeners; from " +
      trace.clock.format(start);
  picture.axisLabel = cache.creationSeen ? "time since the cache was created (s)"
                                         : "time since its first line in the capture (s)";
  picture.durationMs = msSince(start, end);
  for (const CheckRecord& check : cache.cycles) {
    if (check.start != NO_TIME) {
      picture.cycleTimesMs.push_back(msSince(start, check.start));
    }
  }
  bool unknown = false;
  for (const EntityRecord& entity : cache.entities) {
    tools::TimelineRow row;
    row.label = entity.id;
    for (const EntitySpan& span : entitySpans(entity, start, end, answerBefore(cache))) {
      unknown = unknown || span.answer == Answer::UNKNOWN;
      row.spans.push_back({msSince(start, span.from), msSince(start, span.to), span.answer});
    }
    for (const ChangeRecord& change : entity.changes) {
      if (change.at != NO_TIME) {
        row.marksMs.push_back(msSince(start, change.at));
      }
    }
    picture.rows.push_back(std::move(row));
  }
  if (unknown) {
    picture.note += "; hatched where the capture does not tell";
  }
  if (trace.window.limits()) {
    picture.note += "; " + windowText(trace);
  }
  return picture;
}

}  // namespace veranda::reachabilityCache::trace
