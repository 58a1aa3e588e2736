// What the timeline picture shows, independent of where it came from: per
// entity, spans of what the cache answered over time and marks where
// listeners were told; the periodic cycles across all rows.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Answer.h"

namespace veranda::reachabilityCache::tools {

// What isEntityReachable answered during a span.
struct AnswerSpan {
  int64_t fromMs = 0;  // since the start of the picture
  int64_t toMs = 0;    // exclusive
  Answer answer = Answer::ABSENT;
};

struct TimelineRow {
  std::string label;              // any text; shown shortened, whole in the tooltip
  std::vector<AnswerSpan> spans;  // in time order; time outside every span is left blank;
                                  // UNKNOWN spans are hatched
  std::vector<int64_t> marksMs;   // when listeners were told about the entity
};

struct TimelinePicture {
  std::string title;      // e.g. "Reachability over time: my flat"
  std::string note;       // one line under the title
  std::string axisLabel;  // under the time axis
  int64_t durationMs = 0;
  std::vector<TimelineRow> rows;      // in display order
  std::vector<int64_t> cycleTimesMs;  // periodic cycles, drawn as dashed lines
};

}  // namespace veranda::reachabilityCache::tools
