#include "metrics/Metric.h"

#include <android/log.h>

#include <atomic>
#include <sstream>

#include "metrics/MetricSinkForTesting.h"

namespace veranda {
namespace {

constexpr int INFO_PRIORITY = 4;
constexpr const char* METRIC_TAG = "Veranda-Metric";
constexpr uint32_t TEXT_VALUE = 2;
constexpr uint32_t INTEGER_VALUE = 4;

std::atomic<MetricSinkForTesting*> installedSink{nullptr};

void appendValue(std::ostringstream& line, const Dimension& dimension) {
  if (dimension.type == TEXT_VALUE) {
    line << dimension.stringValue;
  } else if (dimension.type == INTEGER_VALUE) {
    line << dimension.longValue;
  }
}

}  // namespace

Metric::Metric(const std::vector<Dimension>& dimensions, const std::string& programId,
               const std::string& sourceId, bool /*immediate*/) {
  std::ostringstream line;
  line << "[Metric]:";
  for (const Dimension& dimension : dimensions) {
    line << ' ' << dimension.name << '=';
    appendValue(line, dimension);
  }
  line << " program=" << programId << " source=" << sourceId;
  const std::string text = line.str();
  MetricSinkForTesting* const sink = installedSink.load(std::memory_order_acquire);
  if (sink == nullptr || !sink->take(INFO_PRIORITY, METRIC_TAG, text.c_str())) {
    __android_log_print(INFO_PRIORITY, METRIC_TAG, "%s", text.c_str());
  }
}

Metric::~Metric() = default;

void setMetricSinkForTesting(MetricSinkForTesting* sink) {
  installedSink.store(sink, std::memory_order_release);
}

}  // namespace veranda
