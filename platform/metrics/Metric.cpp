#include "metrics/Metric.h"

#include <android/log.h>

#include <sstream>

namespace veranda {
namespace {

constexpr int kInfoPriority = 4;
constexpr const char* kMetricTag = "Veranda-Metric";
constexpr uint32_t kTextValue = 2;
constexpr uint32_t kIntegerValue = 4;

void appendValue(std::ostringstream& line, const Dimension& dimension) {
  if (dimension.type == kTextValue) {
    line << dimension.stringValue;
  } else if (dimension.type == kIntegerValue) {
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
  __android_log_print(kInfoPriority, kMetricTag, "%s", line.str().c_str());
}

Metric::~Metric() = default;

}  // namespace veranda
