// Writes finished log lines to the platform log, one function per component
// so that each component always uses its own tag (logSchema::tag).
#pragma once

#include "diagnostics/LogBuilder.h"
#include "diagnostics/LogSchema.h"

namespace veranda::reachabilityCache {

// Android log priorities used by the library.
enum class LogPriority : int { DEBUG = 3, INFO = 4, WARN = 5, ERROR = 6 };

// Tag logSchema::tag::FACADE.
void logFacade(LogPriority priority, const commonLog::LogBuilder& line);
// Tag logSchema::tag::STORE.
void logStore(LogPriority priority, const commonLog::LogBuilder& line);
// Tag logSchema::tag::UPDATER.
void logUpdater(LogPriority priority, const commonLog::LogBuilder& line);
// Tag logSchema::tag::CHECKER.
void logChecker(LogPriority priority, const commonLog::LogBuilder& line);
// Tag logSchema::tag::TRACKER.
void logTracker(LogPriority priority, const commonLog::LogBuilder& line);

// "true" or "false", for boolean log values.
inline const char* boolText(bool value) {
  return value ? logSchema::value::TRUE_TEXT : logSchema::value::FALSE_TEXT;
}

}  // namespace veranda::reachabilityCache
