#include "diagnostics/ComponentLog.h"

#include "diagnostics/LogSink.h"

namespace veranda::reachabilityCache {
namespace {

void write(LogPriority priority, const char* tag, const commonLog::LogBuilder& line) {
  writeLogLine(static_cast<int>(priority), tag, line.text());
}

}  // namespace

void logFacade(LogPriority priority, const commonLog::LogBuilder& line) {
  write(priority, logSchema::tag::FACADE, line);
}

void logStore(LogPriority priority, const commonLog::LogBuilder& line) {
  write(priority, logSchema::tag::STORE, line);
}

void logUpdater(LogPriority priority, const commonLog::LogBuilder& line) {
  write(priority, logSchema::tag::UPDATER, line);
}

void logChecker(LogPriority priority, const commonLog::LogBuilder& line) {
  write(priority, logSchema::tag::CHECKER, line);
}

void logTracker(LogPriority priority, const commonLog::LogBuilder& line) {
  write(priority, logSchema::tag::TRACKER, line);
}

}  // namespace veranda::reachabilityCache
