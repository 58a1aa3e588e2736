// A test hook of the host's metric stand-in: the way for a test to take the
// "Veranda-Metric" lines in-process. The library's lines have a hook of their
// own in the library (so that neither depends on the other); the host test
// kit's LogCapture serves both.
#pragma once

namespace veranda {

// Offered each metric line before the platform log.
class MetricSinkForTesting {
 public:
  // One finished line: its Android priority, its tag and its text, valid
  // during the call. Called on whichever thread records a metric, several at
  // once. True when the sink took the line; false leaves it to the platform
  // log.
  virtual bool take(int priority, const char* tag, const char* text) = 0;

 protected:
  ~MetricSinkForTesting() = default;
};

// Offers every metric line from now on to `sink` (null: to none). A line being
// written meanwhile may still reach the sink it replaced, so a sink must live
// to the end of the process: rather than removing it, let it decline lines.
void setMetricSinkForTesting(MetricSinkForTesting* sink);

}  // namespace veranda
