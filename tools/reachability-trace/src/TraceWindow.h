// Limits a trace to a window of the capture's time line, so that the
// report, the story, the JSON document and the pictures tell of it alone.
#pragma once

#include "TraceModel.h"

namespace veranda::reachabilityCache::trace {

// The window opens: what `cache` kept and counted before it is forgotten
// (its changes, the answers before the one in force, its figures and
// problems), and the trace's limits count from here on. Its checks stay
// until clipToWindow(), which drops those that started before.
void forgetBeforeWindow(Trace& trace, CacheRecord& cache, const TraceWindow& window);

// Keeps what happened in `window` of a trace whose counts began when the
// window opened and which read nothing after it: the caches alive in it,
// their checks that started in it, their entities' changes in it and their
// answers from its start on (the answer at its start first). Caches that
// began before it are taken as already running at its start. Entities with
// no change and no answer in the window are left out. The trace notes the
// window.
void clipToWindow(Trace& trace, const TraceWindow& window);

}  // namespace veranda::reachabilityCache::trace
