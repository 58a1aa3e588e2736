#include "diagnostics/ComponentLog.h"

#include <android/log.h>

namespace veranda::reachabilityCache {
namespace {

void write(LogPriority priority, const char* tag, const commonLog::LogBuilder& line) {
  __android_log_print(static_cast<int>(priority), tag, "%s", line.text());
}

}  // namespace

void logFacade(LogPriority priority, const commonLog::LogBuilder& line) {
  write(priority, "ReachabilityCache-ReachabilityCache", line);
}

void logStore(LogPriority priority, const commonLog::LogBuilder& line) {
  write(priority, "ReachabilityCache-CacheCore", line);
}

void logUpdater(LogPriority priority, const commonLog::LogBuilder& line) {
  write(priority, "ReachabilityCache-ReachabilityUpdater", line);
}

void logChecker(LogPriority priority, const commonLog::LogBuilder& line) {
  write(priority, "ReachabilityCache-ApplianceDriverChecker", line);
}

void logTracker(LogPriority priority, const commonLog::LogBuilder& line) {
  write(priority, "ReachabilityCache-EntityReachabilityTracker", line);
}

}  // namespace veranda::reachabilityCache
