// Captures made from the simulator's own log, which knows the truth: what
// its listener heard and what isEntityReachable answered, per entity.
#pragma once

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "CaptureFiles.h"

namespace veranda::reachabilityCache::trace::testing {

struct SimOutput {
  std::string timeline;  // standard output
  std::string log;       // standard error: the library's lines
};

// Runs the simulator's binary with `arguments`.
SimOutput runSimulator(const std::string& arguments);

// The messages of the simulator's log (the host liblog's, or in virtual time
// threadtime), each with its lines joined.
std::vector<Message> simMessages(const std::string& log);

// Only the messages a production device keeps: info and above.
std::vector<Message> infoOnly(const std::vector<Message>& messages);

// `messages` as a device's threadtime capture: other processes' lines
// between them, one with a tag that starts like the library's.
std::string deviceCapture(const std::vector<Message>& messages, Form form = Form::THREADTIME);

// The simulator's log as a device's threadtime capture (deviceCapture) in
// which every message has a millisecond of its own, from 11-22
// 12:00:00.000 on: any moment of it falls between two messages.
std::string stampedCapture(const std::string& log);

using Told = std::vector<std::pair<std::string, bool>>;  // (endpoint, reachable) in order

// The notifications of the simulator's timeline, per entity and in order.
std::map<std::string, Told> heardByListener(const std::string& timeline);

// What the listener read isEntityReachable answer at each notification, per
// entity and in order.
std::map<std::string, std::vector<Answer>> answersHeard(const std::string& timeline);

// The changes of isEntityReachable per entity, in order, as the simulator's
// entity tracker told them ("true" for reachable).
std::map<std::string, std::vector<bool>> trackedAnswers(const std::string& timeline);

// What isEntityReachable answered at the end, per entity: "reachable",
// "unreachable" or "notCached".
std::map<std::string, std::string> finalAnswers(const std::string& timeline);

}  // namespace veranda::reachabilityCache::trace::testing
