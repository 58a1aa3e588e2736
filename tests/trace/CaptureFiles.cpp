#include "CaptureFiles.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

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

CaptureTrace traceText(const std::string& capture, const std::string& storyEntity) {
  std::string path = ::testing::TempDir() + "capture-XXXXXX";
  const int fd = ::mkstemp(path.data());
  EXPECT_GE(fd, 0);
  std::ofstream(path, std::ios::binary) << capture;
  CaptureTrace result = traceCapture(fd, "capture", storyEntity);
  ::close(fd);
  ::unlink(path.c_str());
  return result;
}

}  // namespace veranda::reachabilityCache::trace::testing
