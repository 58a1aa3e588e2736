#include "SimCaptures.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <optional>
#include <sstream>

#include "CaptureLine.h"

namespace veranda::reachabilityCache::trace::testing {
namespace {

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

std::vector<std::string> words(const std::string& line) {
  std::istringstream in(line);
  return {std::istream_iterator<std::string>(in), {}};
}

std::string timeText(const ClockReading& clock) {
  char text[48];
  std::snprintf(text, sizeof(text), "%02d-%02d %02lld:%02lld:%02lld.%03lld", clock.month, clock.day,
                static_cast<long long>(clock.micros / 3600000000),
                static_cast<long long>(clock.micros / 60000000 % 60),
                static_cast<long long>(clock.micros / 1000000 % 60),
                static_cast<long long>(clock.micros / 1000 % 1000));
  return text;
}

}  // namespace

SimOutput runSimulator(const std::string& arguments) {
  // Tests of other processes (ctest -j, other builds) share the directory.
  static int runs = 0;
  const std::string base =
      ::testing::TempDir() + "sim-" + std::to_string(::getpid()) + "-" + std::to_string(++runs);
  const std::string command = std::string(REACHABILITY_SIM_BINARY) + " " + arguments + " > " +
                              base + ".out 2> " + base + ".err";
  EXPECT_EQ(std::system(command.c_str()), 0) << command;  // NOLINT(concurrency-mt-unsafe)
  return {readFile(base + ".out"), readFile(base + ".err")};
}

std::vector<Message> simMessages(const std::string& log) {
  std::vector<Message> messages;
  std::istringstream lines(log);
  for (std::string line; std::getline(lines, line);) {
    const std::optional<CaptureLine> parsed = parseCaptureLine(line);
    if (!parsed || !parsed->clock || !parsed->pid || !parsed->tid) {
      if (!messages.empty()) {  // a following line of the message, bare
        messages.back().text += "\n" + line;
      }
      continue;
    }
    Message message{timeText(*parsed->clock),       static_cast<int>(*parsed->pid),
                    static_cast<int>(*parsed->tid), parsed->priority,
                    std::string(parsed->tag),       std::string(parsed->text)};
    const bool following = !messages.empty() && !message.text.empty() && message.text[0] != '[' &&
                           messages.back().time == message.time &&
                           messages.back().tid == message.tid && messages.back().tag == message.tag;
    if (following) {  // a following line of the message, with its header again
      messages.back().text += "\n" + message.text;
    } else {
      messages.push_back(std::move(message));
    }
  }
  return messages;
}

std::vector<Message> infoOnly(const std::vector<Message>& messages) {
  std::vector<Message> kept;
  for (const Message& message : messages) {
    if (message.priority != 'D' && message.priority != 'V') {
      kept.push_back(message);
    }
  }
  return kept;
}

std::string deviceCapture(const std::vector<Message>& messages, Form form) {
  std::string capture;
  for (const Message& message : messages) {
    capture +=
        render(Message{message.time, 1000, 1000, 'I', "ReachabilityCacheService", "bound"}, form) +
        render(Message{message.time, 812, 830, 'D', "WifiStateMachine", "rssi=-61"}, form) +
        render(message, form);
  }
  return capture;
}

std::string stampedCapture(const std::string& log) {
  std::vector<Message> messages = simMessages(log);
  long long millis = 0;
  for (Message& message : messages) {
    ++millis;
    char time[32];
    std::snprintf(time, sizeof(time), "11-22 12:%02lld:%02lld.%03lld", millis / 60000 % 60,
                  millis / 1000 % 60, millis % 1000);
    message.time = time;
  }
  return deviceCapture(messages);
}

// The notification lines of the simulator's timeline: "time entity endpoint
// adapter reachable|unreachable yes|no", the last word what
// isEntityReachable answered then.
template <typename Visit>
void notificationLines(const std::string& timeline, Visit visit) {
  std::istringstream lines(timeline);
  for (std::string line; std::getline(lines, line);) {
    const std::vector<std::string> word = words(line);
    if (word.size() == 6 && (word[4] == "reachable" || word[4] == "unreachable") &&
        (word[5] == "yes" || word[5] == "no")) {
      visit(word);
    }
  }
}

std::map<std::string, std::vector<Answer>> answersHeard(const std::string& timeline) {
  std::map<std::string, std::vector<Answer>> heard;
  notificationLines(timeline, [&heard](const std::vector<std::string>& word) {
    heard[word[1]].push_back(word[5] == "yes" ? Answer::REACHABLE : Answer::UNREACHABLE);
  });
  return heard;
}

std::map<std::string, Told> heardByListener(const std::string& timeline) {
  std::map<std::string, Told> heard;
  notificationLines(timeline, [&heard](const std::vector<std::string>& word) {
    heard[word[1]].emplace_back(word[2], word[4] == "reachable");
  });
  return heard;
}

std::map<std::string, std::vector<bool>> trackedAnswers(const std::string& timeline) {
  std::map<std::string, std::vector<bool>> answers;
  std::istringstream lines(timeline);
  for (std::string line; std::getline(lines, line);) {
    const std::vector<std::string> word = words(line);
    if (word.size() == 3 && (word[2] == "reachable" || word[2] == "unreachable")) {
      answers[word[1]].push_back(word[2] == "reachable");
    }
  }
  return answers;
}

std::map<std::string, std::string> finalAnswers(const std::string& timeline) {
  std::map<std::string, std::string> answers;
  std::istringstream lines(timeline);
  bool inTable = false;
  for (std::string line; std::getline(lines, line);) {
    const std::vector<std::string> word = words(line);
    if (line.rfind("The cache at the end", 0) == 0) {
      inTable = true;
    } else if (inTable && word.size() >= 2 &&
               (word[1] == "yes" || word[1] == "no" || word[1] == "not")) {
      answers[word[0]] = word[1] == "yes"  ? "reachable"
                         : word[1] == "no" ? "unreachable"
                                           : "notCached";
    }
  }
  return answers;
}

}  // namespace veranda::reachabilityCache::trace::testing
