#include "SvgWriter.h"

#include "TimelineSvg.h"

namespace veranda::reachabilityCache::sim {

tools::TimelinePicture timelinePicture(const RunReport& report) {
  tools::TimelinePicture picture;
  picture.title =
      "Reachability over time: " + (report.name.empty() ? std::string("scenario") : report.name);
  std::size_t changes = 0;
  for (const EntityHistory& history : report.histories) {
    changes += answerChanges(history);
  }
  picture.note = std::to_string(report.entities.size()) + " entities, refresh every " +
                 std::to_string(report.intervalSeconds) + " s, " +
                 std::to_string(report.notifications) + " notifications, " +
                 std::to_string(changes) + " changes of isEntityReachable";
  picture.axisLabel = "time since the cache was created (s)";
  picture.durationMs = report.durationMs;
  picture.cycleTimesMs = report.cycleTimesMs;
  for (std::size_t i = 0; i < report.entities.size(); ++i) {
    tools::TimelineRow row;
    row.label = report.entities[i];
    const std::vector<AnswerChange>& changes = report.histories[i].answers;
    for (std::size_t k = 0; k < changes.size(); ++k) {
      const int64_t endMs = k + 1 < changes.size() ? changes[k + 1].atMs : report.durationMs;
      row.spans.push_back({changes[k].atMs, endMs, changes[k].answer});
    }
    row.marksMs = report.histories[i].notifiedAtMs;
    picture.rows.push_back(std::move(row));
  }
  return picture;
}

std::string timelineSvg(const RunReport& report) {
  return tools::timelineSvg(timelinePicture(report));
}

bool writeTimelineSvg(const RunReport& report, const std::string& path, std::string& error) {
  return tools::writeTimelineSvg(timelinePicture(report), path, error);
}

}  // namespace veranda::reachabilityCache::sim
