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

// The layouts a capture comes in: logcat's (with adverbs), an IDE's copies,
// the host liblog's.
enum class Form {
  THREADTIME,
  UID_YEAR_USEC,  // -v year -v usec -v uid
  TIME,
  TIME_YEAR_USEC,  // -v time -v year -v usec
  BRIEF,
  LONG,            // -v long: a header line, the message, an empty line
  LONG_UID_EPOCH,  // -v long -v uid -v epoch
  COLOR,           // -v color: each line in an ANSI colour
  EPOCH,           // -v epoch: seconds since 1970
  MONOTONIC,       // -v monotonic: seconds since boot
  NSEC,            // -v nsec: nine digits
  UID_ZONE,        // -v uid -v zone
  CRLF,            // threadtime with CR LF line ends
  IDE_TABLE,       // an IDE's newer copy; following lines bare, indented
  IDE_TEXT,        // an IDE's older copy
  HOST,
};

// The layouts above, for tests that go through them all.
inline constexpr Form ALL_FORMS[] = {
    Form::THREADTIME, Form::UID_YEAR_USEC, Form::TIME,           Form::TIME_YEAR_USEC,
    Form::BRIEF,      Form::LONG,          Form::LONG_UID_EPOCH, Form::COLOR,
    Form::EPOCH,      Form::MONOTONIC,     Form::NSEC,           Form::UID_ZONE,
    Form::CRLF,       Form::IDE_TABLE,     Form::IDE_TEXT,       Form::HOST,
};
const char* formName(Form form);

// The message's lines in `form`: logcat repeats the header on every line
// (or, long, writes it once above them), the host liblog writes the
// following lines bare. Times are taken as UTC in 2026; seconds since boot
// count from 11-22 00:00:00.
std::string render(const Message& message, Form form);
std::string render(const std::vector<Message>& messages, Form form);

// The lines of `capture`, without their line feeds: line n is [n - 1].
std::vector<std::string> linesOf(const std::string& capture);

// The trace of `capture`, read from a temporary file.
CaptureTrace traceText(const std::string& capture, const std::string& storyEntity = "",
                       const TraceLimits& limits = {});
CaptureTrace traceText(const std::string& capture, const TraceScope& scope);

}  // namespace veranda::reachabilityCache::trace::testing
