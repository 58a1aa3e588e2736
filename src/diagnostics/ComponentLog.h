// Writes finished log lines to the platform log, one function per component
// so that each component always uses its own tag.
#pragma once

#include "diagnostics/LogBuilder.h"

namespace veranda::reachabilityCache {

// Android log priorities used by the library.
enum class LogPriority : int { DEBUG = 3, INFO = 4, WARN = 5, ERROR = 6 };

// Tag "ReachabilityCache-ReachabilityCache".
void logFacade(LogPriority priority, const commonLog::LogBuilder& line);
// Tag "ReachabilityCache-CacheCore".
void logStore(LogPriority priority, const commonLog::LogBuilder& line);
// Tag "ReachabilityCache-ReachabilityUpdater".
void logUpdater(LogPriority priority, const commonLog::LogBuilder& line);
// Tag "ReachabilityCache-ApplianceDriverChecker".
void logChecker(LogPriority priority, const commonLog::LogBuilder& line);
// Tag "ReachabilityCache-EntityReachabilityTracker".
void logTracker(LogPriority priority, const commonLog::LogBuilder& line);

// "true" or "false", for boolean log values.
inline const char* boolText(bool value) { return value ? "true" : "false"; }

}  // namespace veranda::reachabilityCache
