#include "CaptureFiles.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <optional>
#include <sstream>
#include <utility>

#include "CaptureLine.h"

namespace veranda::reachabilityCache::trace::testing {

namespace {

// Seconds since 1970 of "MM-DD HH:MM:SS.mmm" in 2026, and the milliseconds.
std::pair<long long, int> epochOf(const std::string& time) {
  static const int DAYS_BEFORE[] = {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334};
  const int month = std::stoi(time.substr(0, 2));
  const int day = std::stoi(time.substr(3, 2));
  const long long days = 20454 + DAYS_BEFORE[month - 1] + day - 1;  // 2026-01-01 is day 20454
  const long long seconds = days * 86400 + std::stoll(time.substr(6, 2)) * 3600 +
                            std::stoll(time.substr(9, 2)) * 60 + std::stoll(time.substr(12, 2));
  return {seconds, std::stoi(time.substr(15, 3))};
}

std::string header(const Message& message, Form form) {
  char pids[32];
  std::snprintf(pids, sizeof(pids), "%5d %5d", message.pid, message.tid);
  const std::string priority(1, message.priority);
  const auto [epoch, millis] =
      message.time.empty() ? std::pair<long long, int>(0, 0) : epochOf(message.time);
  char seconds[48];
  switch (form) {
    case Form::THREADTIME:
    case Form::COLOR:
    case Form::CRLF:
      return message.time + "  " + pids + " " + priority + " " + message.tag + ": ";
    case Form::UID_YEAR_USEC:
      return "2026-" + message.time + "123 u0_a123 " + pids + " " + priority + " " + message.tag +
             ": ";
    case Form::TIME:
      return message.time + " " + priority + "/" + message.tag + "(" + std::to_string(message.pid) +
             "): ";
    case Form::TIME_YEAR_USEC:
      return "2026-" + message.time + "123 " + priority + "/" + message.tag + "(" +
             std::to_string(message.pid) + "): ";
    case Form::BRIEF:
      return priority + "/" + message.tag + "(" + std::to_string(message.pid) + "): ";
    case Form::LONG:
      return "[ " + message.time + "  " + std::to_string(message.pid) + ": " +
             std::to_string(message.tid) + " " + priority + "/" + message.tag + " ]";
    case Form::LONG_UID_EPOCH:
      std::snprintf(seconds, sizeof(seconds), "%lld.%03d", epoch, millis);
      return "[ " + std::string(seconds) + " 10123: " + std::to_string(message.pid) + ": " +
             std::to_string(message.tid) + " " + priority + "/" + message.tag + " ]";
    case Form::EPOCH:
      std::snprintf(seconds, sizeof(seconds), "%lld.%03d", epoch, millis);
      return std::string(seconds) + "  " + pids + " " + priority + " " + message.tag + ": ";
    case Form::MONOTONIC:  // right-aligned
      std::snprintf(seconds, sizeof(seconds), "%6lld.%03d", (epoch - 20779LL * 86400) % 1000000,
                    millis);
      return std::string(seconds) + "  " + pids + " " + priority + " " + message.tag + ": ";
    case Form::NSEC:
      return message.time + "123456  " + pids + " " + priority + " " + message.tag + ": ";
    case Form::UID_ZONE:
      return message.time + " +0100 u0_a187 " + pids + " " + priority + " " + message.tag + ": ";
    case Form::IDE_TABLE:
      return "2026-" + message.time + "  " + std::to_string(message.pid) + "-" +
             std::to_string(message.tid) + "  " + message.tag + "  com.example.home  " + priority +
             "  ";
    case Form::IDE_TEXT:
      return "2026-" + message.time + " " + std::to_string(message.pid) + "-" +
             std::to_string(message.tid) + "/com.example.home " + priority + "/" + message.tag +
             ": ";
    case Form::HOST:  // seconds only
      return message.tag + " " + priority + " " + message.time.substr(0, 14) + " " + pids + " ";
  }
  return "";
}

}  // namespace

const char* formName(Form form) {
  static const char* const NAMES[] = {
      "threadtime", "uid year usec", "time",           "time year usec",
      "brief",      "long",          "long uid epoch", "color",
      "epoch",      "monotonic",     "nsec",           "uid zone",
      "CR LF",      "IDE table",     "IDE text",       "host"};
  return NAMES[static_cast<int>(form)];
}

std::string render(const Message& message, Form form) {
  const std::string head = header(message, form);
  const std::string end = form == Form::CRLF ? "\r\n" : "\n";
  std::string result;
  if (form == Form::LONG || form == Form::LONG_UID_EPOCH) {
    return head + "\n" + message.text + "\n\n";
  }
  std::istringstream lines(message.text);
  bool first = true;
  for (std::string line; std::getline(lines, line); first = false) {
    std::string text = first || (form != Form::HOST && form != Form::IDE_TABLE)
                           ? head + line
                           : (form == Form::IDE_TABLE ? std::string(head.size(), ' ') : "") + line;
    if (form == Form::COLOR) {
      text.insert(0, std::string("\x1b[38;5;") + (message.priority == 'D' ? "75" : "40") + "m");
      text += "\x1b[0m";
    }
    result += text + end;
  }
  return result;
}

std::string render(const std::vector<Message>& messages, Form form) {
  std::string result;
  for (const Message& message : messages) {
    result += render(message, form);
  }
  return result;
}

std::vector<std::string> linesOf(const std::string& capture) {
  std::vector<std::string> lines;
  std::istringstream in(capture);
  for (std::string line; std::getline(in, line);) {
    lines.push_back(line);
  }
  return lines;
}

CaptureTrace traceText(const std::string& capture, const TraceScope& scope) {
  std::string path = ::testing::TempDir() + "capture-XXXXXX";
  const int fd = ::mkstemp(path.data());
  EXPECT_GE(fd, 0);
  std::ofstream(path, std::ios::binary) << capture;
  CaptureTrace result = traceCapture(fd, "capture", scope);
  ::close(fd);
  ::unlink(path.c_str());
  return result;
}

CaptureTrace traceText(const std::string& capture, const std::string& storyEntity,
                       const TraceLimits& limits) {
  TraceScope scope;
  scope.evidence.entity = storyEntity;
  scope.limits = limits;
  return traceText(capture, scope);
}

}  // namespace veranda::reachabilityCache::trace::testing
