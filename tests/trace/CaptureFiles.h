// Captures for the trace tests: the library's messages written as logcat or
// the host liblog would write them, and the trace of such a capture.
#pragma once

#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "CaptureTrace.h"
#include "diagnostics/LogSchema.h"

namespace veranda::reachabilityCache::trace::testing {

inline constexpr const char* FACADE = logSchema::tag::FACADE;
inline constexpr const char* STORE = logSchema::tag::STORE;
inline constexpr const char* UPDATER = logSchema::tag::UPDATER;
inline constexpr const char* CHECKER = logSchema::tag::CHECKER;
inline constexpr const char* METRIC = logSchema::tag::METRIC;

// One message of the library (or another process).
struct Message {
  std::string time;  // "MM-DD HH:MM:SS.mmm"
  int pid;
  int tid;
  char priority;
  std::string tag;
  std::string text;  // may hold line feeds
};

enum class Form { THREADTIME, UID_YEAR_USEC, TIME, BRIEF, HOST };

// The message's lines in `form`: logcat repeats the header on every line,
// the host liblog writes the following lines bare.
std::string render(const Message& message, Form form);
std::string render(const std::vector<Message>& messages, Form form);

// The trace of `capture`, read from a temporary file.
CaptureTrace traceText(const std::string& capture, const std::string& storyEntity = "");
CaptureTrace traceText(const std::string& capture, const TraceScope& scope);

struct SimOutput {
  std::string timeline;  // standard output
  std::string log;       // standard error: the library's lines, host liblog style
};

// Runs reachability-sim with `arguments`; `name` names its output files.
SimOutput runSimulator(const std::string& arguments, const std::string& name);

// The simulator's final table: what isEntityReachable answered for each
// entity at the end (reachable, unreachable or absent).
std::map<std::string, Answer> simulatorFinalAnswers(const std::string& timeline);

// The simulator's host log as a device's threadtime capture in which every
// message has a millisecond of its own, from 11-22 12:00:00.000 on, and
// other processes' lines stand between messages: any moment of the capture
// falls between two messages of the library.
std::string stampedCapture(const std::string& hostLog);

}  // namespace veranda::reachabilityCache::trace::testing
