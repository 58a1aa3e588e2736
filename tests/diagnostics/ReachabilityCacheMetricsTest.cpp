#include "diagnostics/ReachabilityCacheMetrics.h"

#include <gtest/gtest.h>

#include "LogRecorder.h"

namespace veranda::reachabilityCache {
namespace {

using test::LogLine;
using test::LogRecorder;
using Metrics = ReachabilityCacheMetrics;

class ReachabilityCacheMetricsTest : public ::testing::Test {
 protected:
  void SetUp() override { LogRecorder::instance().clear(); }

  static std::vector<LogLine> metricLines() {
    return LogRecorder::instance().linesWithTag(test::METRIC_TAG);
  }
};

TEST_F(ReachabilityCacheMetricsTest, EnumerationsRenderTheirTexts) {
  EXPECT_EQ(Metrics::updateTypeToString(Metrics::UpdateType::PERIODIC), "periodic");
  EXPECT_EQ(Metrics::updateTypeToString(Metrics::UpdateType::EVENT), "event");
  EXPECT_EQ(Metrics::updateTypeToString(Metrics::UpdateType::MANUAL), "manual");
  EXPECT_EQ(Metrics::updateTypeToString(static_cast<Metrics::UpdateType>(3)), "unknown");
  EXPECT_EQ(Metrics::subscribeActionToString(Metrics::SubscribeAction::ENABLE), "enable");
  EXPECT_EQ(Metrics::subscribeActionToString(Metrics::SubscribeAction::DISABLE), "disable");
  EXPECT_EQ(Metrics::subscribeActionToString(static_cast<Metrics::SubscribeAction>(7)), "unknown");
}

TEST_F(ReachabilityCacheMetricsTest, EachEmitRecordsExactlyOneMetricWithItsDimensions) {
  Metrics::emitCacheFull(0);
  Metrics::emitInsertFailed("");
  Metrics::emitCheckFailed(Metrics::UpdateType::MANUAL, "checkStartFailed");
  Metrics::emitSubscribeFailed(Metrics::SubscribeAction::ENABLE, "registrationFailed");
  const std::string routing = " program=762veg6l source=nlef/2/03330473";
  const std::vector<LogLine> expected = {
      {4, test::METRIC_TAG, "[Metric]: metricName=ReachabilityCache.CacheFull maxSize=0" + routing},
      {4, test::METRIC_TAG,
       "[Metric]: metricName=ReachabilityCache.InsertFailed reason=" + routing},
      {4, test::METRIC_TAG,
       "[Metric]: metricName=ReachabilityCache.CheckFailed updateType=manual "
       "reason=checkStartFailed" +
           routing},
      {4, test::METRIC_TAG,
       "[Metric]: metricName=ReachabilityCache.SubscribeFailed action=enable "
       "reason=registrationFailed" +
           routing},
  };
  EXPECT_EQ(metricLines(), expected);
}

TEST_F(ReachabilityCacheMetricsTest, CapacityIsWrittenAsA64BitInteger) {
  Metrics::emitCacheFull(4294967295U);
  ASSERT_EQ(metricLines().size(), 1U);
  EXPECT_NE(metricLines()[0].text.find(" maxSize=4294967295 "), std::string::npos);
}

}  // namespace
}  // namespace veranda::reachabilityCache
