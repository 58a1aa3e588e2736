#include "Report.h"

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "SafeText.h"
#include "reachabilityCache/ApplianceDriverReachabilityChecker.h"

namespace veranda::reachabilityCache::sim {
namespace {

constexpr std::size_t LISTED_DEVICES = 10;

std::string seconds(int64_t ms) {
  char text[32];
  std::snprintf(text, sizeof(text), "%g s", static_cast<double>(ms) / 1000);
  return text;
}

void printDeviceList(const char* heading, const std::vector<const Device*>& devices,
                     std::ostream& out) {
  if (devices.empty()) {
    return;
  }
  out << "  " << heading << ":";
  for (std::size_t i = 0; i < devices.size() && i < LISTED_DEVICES; ++i) {
    out << (i == 0 ? " " : ", ") << tools::terminalText(devices[i]->entityId) << " / "
        << tools::terminalText(devices[i]->endpointId);
    if (ApplianceDriverReachabilityChecker::SUPPORTED_ADAPTERS.count(devices[i]->adapterName) ==
        0) {
      out << " on " << tools::terminalText(devices[i]->adapterName);
    }
  }
  if (devices.size() > LISTED_DEVICES) {
    out << " and " << devices.size() - LISTED_DEVICES << " more";
  }
  out << '\n';
}

std::string endpointsText(const TableRow& row) {
  std::string text;
  for (const auto& endpoint : row.endpoints) {
    text += (text.empty() ? "" : ", ") + endpoint.first + " (" + endpoint.second + ")";
  }
  return text;
}

// What the run plays: the listed events and the flaps made up as it goes.
std::string eventsText(const Scenario& scenario) {
  std::string text;
  if (!scenario.events.empty() || !(scenario.flaps.perMinute > 0)) {
    text = std::to_string(scenario.events.size()) + " events";
  }
  if (scenario.flaps.perMinute > 0) {
    char flaps[96];
    std::snprintf(flaps, sizeof(flaps), "drops generated at %g per device per minute",
                  scenario.flaps.perMinute);
    text += (text.empty() ? "" : " and ") + std::string(flaps);
  }
  return text;
}

// The text made safe for a terminal, padded to `width` characters.
std::string padded(const std::string& text, std::size_t width) {
  return tools::terminalPadded(text, width);
}

}  // namespace

void printHomeSummary(const Scenario& scenario, std::ostream& out) {
  std::vector<const Device*> unsupported;
  std::vector<const Device*> offline;
  std::vector<const Device*> absent;
  for (const Device& device : scenario.devices) {
    if (ApplianceDriverReachabilityChecker::SUPPORTED_ADAPTERS.count(device.adapterName) == 0) {
      unsupported.push_back(&device);
    }
    if (!device.online) {
      offline.push_back(&device);
    }
    if (!device.present) {
      absent.push_back(&device);
    }
  }
  out << "Home: " << (scenario.name.empty() ? "(unnamed)" : tools::terminalText(scenario.name))
      << " - " << scenario.entities.size() << " entities, " << scenario.devices.size()
      << " devices, " << eventsText(scenario) << "; runs " << seconds(scenario.durationMs)
      << ", refresh every " << scenario.intervalSeconds << " s (the first cycle 1 s after start)\n";
  printDeviceList("on adapters the cache does not support", unsupported, out);
  printDeviceList("offline at start", offline, out);
  printDeviceList("not in the home at start", absent, out);
  out << '\n';
}

void printFinalTable(const RunReport& report, std::ostream& out) {
  const std::string preferredHeading =
      "preferred for " + tools::terminalText(report.preferredAdapter);
  std::size_t entityWidth = 6;
  std::size_t endpointsWidth = 9;
  for (const TableRow& row : report.table) {
    entityWidth = std::max(entityWidth, tools::terminalWidth(row.entityId));
    endpointsWidth = std::max(endpointsWidth, tools::terminalWidth(endpointsText(row)));
  }
  entityWidth = std::min<std::size_t>(entityWidth, 32);
  endpointsWidth = std::min<std::size_t>(endpointsWidth, 72);
  out << "\nThe cache at the end (" << seconds(report.durationMs)
      << "); over the run, per entity: changes of isEntityReachable, notifications, time "
         "reachable:\n"
      << padded("entity", entityWidth) << "  reachable  changes  notified  reachable for  "
      << padded("endpoints", endpointsWidth) << "  " << preferredHeading << '\n';
  std::size_t reachable = 0;
  std::size_t cached = 0;
  std::size_t changes = 0;
  for (std::size_t i = 0; i < report.table.size(); ++i) {
    const TableRow& row = report.table[i];
    const EntityHistory& history = report.histories[i];
    cached += row.cached ? 1 : 0;
    reachable += row.reachable ? 1 : 0;
    changes += answerChanges(history);
    char counts[64];
    std::snprintf(counts, sizeof(counts), "%7zu  %8zu  %13s", answerChanges(history),
                  history.notifications, seconds(reachableMs(history, report.durationMs)).c_str());
    std::string line = padded(row.entityId, entityWidth) + "  " +
                       padded(!row.cached     ? "not cached"
                              : row.reachable ? "yes"
                                              : "no",
                              10) +
                       " " + counts + "  " + padded(endpointsText(row), endpointsWidth) + "  " +
                       tools::terminalText(row.preferredEndpoint);
    line.erase(line.find_last_not_of(' ') + 1);
    out << line << '\n';
  }
  out << "\n"
      << report.table.size() << " entities: " << reachable << " reachable, " << cached - reachable
      << " cached but unreachable, " << report.table.size() - cached << " not cached. "
      << report.notifications << " notifications (" << report.toldReachable << " reachable, "
      << report.notifications - report.toldReachable << " unreachable) and " << changes
      << " changes of isEntityReachable in " << report.cycleTimesMs.size() << " periodic cycles.\n";
}

}  // namespace veranda::reachabilityCache::sim
