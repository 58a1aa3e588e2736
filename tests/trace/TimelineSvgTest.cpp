// The picture both programs draw stays readable however long the run.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include "TimelineSvg.h"

namespace veranda::reachabilityCache::trace::testing {
namespace {

// The x positions of the dashed cycle lines in `svg`, the legend's excluded.
std::vector<double> cycleLineXs(const std::string& svg) {
  std::vector<double> xs;
  std::istringstream lines(svg);
  for (std::string line; std::getline(lines, line);) {
    double x = 0;
    double y = 0;
    if (line.find("stroke-dasharray") != std::string::npos &&
        std::sscanf(line.c_str(), "<line x1=\"%lf\" y1=\"%lf\"", &x, &y) == 2 &&
        y > 60) {  // below the legend
      xs.push_back(x);
    }
  }
  return xs;
}

tools::TimelinePicture pictureWithCycles(int64_t durationMs, int64_t everyMs) {
  tools::TimelinePicture picture;
  picture.durationMs = durationMs;
  picture.rows.push_back({"lamp", {{0, durationMs, tools::Answer::REACHABLE}}, {}});
  for (int64_t at = everyMs; at <= durationMs; at += everyMs) {
    picture.cycleTimesMs.push_back(at);
  }
  return picture;
}

TEST(TimelineSvgTest, CyclesAreDrawnEachWhileApartAndThinnedWhereTheyWouldMerge) {
  const std::vector<double> sparse =
      cycleLineXs(tools::timelineSvg(pictureWithCycles(10'000, 1'000)));
  EXPECT_EQ(sparse.size(), 10u);

  // A day of minute cycles: 1440 lines on 900 px would merge into stripes.
  const std::vector<double> dense =
      cycleLineXs(tools::timelineSvg(pictureWithCycles(86'400'000, 60'000)));
  ASSERT_GT(dense.size(), 150u);
  EXPECT_LT(dense.size(), 240u);
  for (std::size_t i = 1; i < dense.size(); ++i) {
    EXPECT_GE(dense[i] - dense[i - 1], 4.0) << "line " << i;
  }
}

}  // namespace
}  // namespace veranda::reachabilityCache::trace::testing
