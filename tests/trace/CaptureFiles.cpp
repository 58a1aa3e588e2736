#include "CaptureFiles.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <optional>
#include <sstream>

#include "CaptureLine.h"

namespace veranda::reachabilityCache::trace::testing {

std::string render(const Message& message, Form form) {
  char pids[32];
  std::snprintf(pids, sizeof(pids), "%5d %5d", message.pid, message.tid);
  std::string header;
  switch (form) {
    case Form::THREADTIME:
      header = message.time + "  " + pids + " " + message.priority + " " + message.tag + ": ";
      break;
    case Form::UID_YEAR_USEC:  // -v year -v usec -v uid: the year, six digits, a uid name
      header = "2026-" + message.time + "123 u0_a123 " + pids + " " + message.priority + " " +
               message.tag + ": ";
      break;
    case Form::TIME:
      header = message.time + " " + message.priority + "/" + message.tag + "(" +
               std::to_string(message.pid) + "): ";
      break;
    case Form::BRIEF:
      header = std::string(1, message.priority) + "/" + message.tag + "(" +
               std::to_string(message.pid) + "): ";
      break;
    case Form::HOST:  // seconds only
      header = message.tag + " " + message.priority + " " + message.time.substr(0, 14) + " " +
               pids + " ";
      break;
  }
  std::string result;
  std::istringstream lines(message.text);
  bool first = true;
  for (std::string line; std::getline(lines, line); first = false) {
    result += (first || form != Form::HOST ? header : "") + line + "\n";
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

CaptureTrace traceText(const std::string& capture, const std::string& storyEntity) {
  TraceScope scope;
  scope.evidence.entity = storyEntity;
  return traceText(capture, scope);
}

namespace {

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

}  // namespace

SimOutput runSimulator(const std::string& arguments, const std::string& name) {
  const std::string base = ::testing::TempDir() + name;
  const std::string command = std::string(REACHABILITY_SIM_BINARY) + " " + arguments + " > " +
                              base + ".out 2> " + base + ".err";
  // NOLINTNEXTLINE(concurrency-mt-unsafe): a test's own thread runs it
  EXPECT_EQ(std::system(command.c_str()), 0) << command;
  return {readFile(base + ".out"), readFile(base + ".err")};
}

std::map<std::string, Answer> simulatorFinalAnswers(const std::string& timeline) {
  std::map<std::string, Answer> answers;
  std::istringstream lines(timeline);
  bool inTable = false;
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::string entity;
    std::string answer;
    words >> entity >> answer;
    if (line.rfind("The cache at the end", 0) == 0) {
      inTable = true;
    } else if (inTable && (answer == "yes" || answer == "no" || answer == "not")) {
      answers[entity] = answer == "yes"  ? Answer::REACHABLE
                        : answer == "no" ? Answer::UNREACHABLE
                                         : Answer::ABSENT;
    }
  }
  return answers;
}

std::string stampedCapture(const std::string& hostLog) {
  std::string capture;
  std::string header;
  int64_t millis = 0;
  std::istringstream lines(hostLog);
  for (std::string line; std::getline(lines, line);) {
    const std::optional<CaptureLine> parsed = parseCaptureLine(line);
    if (!parsed) {  // a following line of the message
      capture += header + line + "\n";
      continue;
    }
    ++millis;
    char time[32];
    std::snprintf(time, sizeof(time), "11-22 12:%02lld:%02lld.%03lld",
                  static_cast<long long>(millis / 60000 % 60),
                  static_cast<long long>(millis / 1000 % 60),
                  static_cast<long long>(millis % 1000));
    capture += std::string(time) + "   812   830 D WifiStateMachine: rssi=-61\n";
    header = std::string(time) + " " + std::to_string(*parsed->pid) + " " +
             std::to_string(*parsed->tid) + " " + parsed->priority + " " +
             std::string(parsed->tag) + ": ";
    capture += header + std::string(parsed->text) + "\n";
  }
  return capture;
}

}  // namespace veranda::reachabilityCache::trace::testing
