// Declarations of the platform's metric recorder. The closed utilities
// library records one metric per constructed Metric; the stand-in built here
// writes it as one "Veranda-Metric" line to the platform log.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace veranda {

// One named value of a metric.
struct Dimension {
  std::string name;
  uint32_t type = 0;  // 2: text value, 4: 64-bit integer value
  std::string stringValue;
  bool boolValue = false;
  int64_t longValue = 0;
  double doubleValue = 0.0;  // the further 8-byte value, always zero here
};

// Records the metric when constructed. Safe to use from any thread.
class Metric {
 public:
  Metric(const std::vector<Dimension>& dimensions, const std::string& programId,
         const std::string& sourceId, bool immediate);
  // Declared as the platform's header declares it: its library defines it.
  ~Metric();  // NOLINT(performance-trivially-destructible)

  Metric(const Metric&) = delete;
  Metric& operator=(const Metric&) = delete;
};

}  // namespace veranda
