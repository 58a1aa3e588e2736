#include "SvgWriter.h"

#include <unordered_map>

#include "TimelineSvg.h"

namespace veranda::reachabilityCache::sim {
namespace {

tools::SpanState spanState(EntityState state) {
  switch (state) {
    case EntityState::kReachable:
      return tools::SpanState::kReachable;
    case EntityState::kUnreachable:
      return tools::SpanState::kUnreachable;
    case EntityState::kAbsent:
      break;
  }
  return tools::SpanState::kAbsent;
}

}  // namespace

tools::TimelinePicture timelinePicture(const RunReport& report) {
  tools::TimelinePicture picture;
  picture.title =
      "Reachability over time: " + (report.name.empty() ? std::string("scenario") : report.name);
  picture.note = std::to_string(report.entities.size()) + " entities, refresh every " +
                 std::to_string(report.intervalSeconds) + " s, " +
                 std::to_string(report.notifications.size()) + " notifications";
  picture.axisLabel = "time since the cache was created (s)";
  picture.durationMs = report.durationMs;
  picture.cycleTimesMs = report.cycleTimesMs;
  std::unordered_map<std::string, std::size_t> rowOf;
  for (std::size_t i = 0; i < report.entities.size(); ++i) {
    tools::TimelineRow row;
    row.label = report.entities[i];
    const std::vector<StateChange>& changes = report.states[i];
    for (std::size_t k = 0; k < changes.size(); ++k) {
      const int64_t endMs = k + 1 < changes.size() ? changes[k + 1].atMs : report.durationMs;
      row.spans.push_back({changes[k].atMs, endMs, spanState(changes[k].state)});
    }
    rowOf.emplace(report.entities[i], i);
    picture.rows.push_back(std::move(row));
  }
  for (const Notification& notification : report.notifications) {
    const auto row = rowOf.find(notification.entityId);
    if (row != rowOf.end()) {
      picture.rows[row->second].marksMs.push_back(notification.atMs);
    }
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
