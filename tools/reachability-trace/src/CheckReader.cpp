#include "CheckReader.h"

#include "Problems.h"

namespace veranda::reachabilityCache::trace {
namespace {

constexpr std::string_view PERIODIC_PREFIX = "periodic_";

}  // namespace

void CheckReader::updaterLine(const CacheMessage& in) {
  const LibraryLine& line = in.line;
  const std::optional<std::string_view> reason = line.get("reason");
  if (line.label == "startPeriodicUpdates") {
    if (periodicRunning_) {
      countProblem(in.cache, DUPLICATE_CHAIN, in.at);
    }
    periodicRunning_ = true;
    in.cache.intervalSeconds = line.signedNumber("intervalSeconds");
    in.cache.initialDelayMs = line.signedNumber("initialDelayMs");
  } else if (line.label == "stopPeriodicUpdates") {
    periodicRunning_ = false;
  } else if (line.label == "performPeriodicUpdate") {
    periodicUpdate(in);
  } else if (line.label.empty() && reason == "checkStartFailed") {  // a manual trigger's task
    countProblem(in.cache, CHECK_START_FAILED, in.at);
    check(in, line.get("requestId").value_or("")).startFailed = true;
  }
}

void CheckReader::periodicUpdate(const CacheMessage& in) {
  const std::optional<std::string_view> reason = in.line.get("reason");
  if (reason == "chrProviderNull") {
    countProblem(in.cache, PROVIDER_NULL, in.at);
  } else if (reason == "chrQueryReturnedEmpty") {
    countProblem(in.cache, PROVIDER_EMPTY, in.at);
    CheckRecord empty;
    empty.start = in.at;
    empty.endpointCount = 0;
    empty.providerEmpty = true;
    in.cache.cycles.push_back(empty);
  } else if (reason == "checkStartFailed") {
    countProblem(in.cache, CHECK_START_FAILED, in.at);
    check(in, in.line.get("requestId").value_or("")).startFailed = true;
  } else if (const auto count = in.line.number("endpointCount")) {
    nextEndpointCount_ = count;
  }
}

void CheckReader::checkerLine(const CacheMessage& in) {
  const LibraryLine& line = in.line;
  if (line.label == "checkReachability") {
    if (const auto details = line.get("details")) {
      // "requestId=periodic_3 count=17" and one line per endpoint
      const std::string first = "[]: " + std::string(details->substr(0, details->find('\n')));
      const std::optional<LibraryLine> head = parseLibraryLine(first);  // views into `first`
      if (head && head->get("requestId")) {
        CheckRecord& record = check(in, *head->get("requestId"));
        record.endpointCount = head->number("count");
      }
    } else if (line.has("status", "requestSent")) {
      check(in, line.get("requestId").value_or("")).started = true;
    }
  } else if (line.label == "processDiscoveredDevices") {
    const std::string_view requestId = line.get("requestId").value_or("");
    CheckRecord& record = check(in, requestId);
    record.answered = true;
    record.answeredAt = in.at;
    record.resultCount = line.number("resultCount");
    if (evidence_.any()) {
      record.answerLine = evidence_.line(in);
    }
    answers_[in.thread] = checks_.at(std::string(requestId));
  }
}

const CheckRecord* CheckReader::answering(const CacheRecord& cache, int thread) const {
  const auto answer = answers_.find(thread);
  if (answer == answers_.end()) {
    return nullptr;
  }
  const auto [periodic, index] = answer->second;
  return periodic ? &cache.cycles[index] : &cache.manualChecks[index];
}

CheckRecord* CheckReader::takeSummarised(const CacheMessage& in, bool cut, std::size_t entries) {
  const auto answer = answers_.find(in.thread);
  if (answer == answers_.end()) {
    return nullptr;
  }
  CheckRecord& record = recordAt(in.cache, answer->second);
  if (!in.message.tid && !cut && entries != record.resultCount.value_or(entries)) {
    return nullptr;
  }
  answers_.erase(answer);
  return &record;
}

CheckRecord& CheckReader::check(const CacheMessage& in, std::string_view requestId) {
  CacheRecord& cache = in.cache;
  const std::string id(requestId);
  auto found = checks_.find(id);
  if (found == checks_.end()) {
    const bool periodic = requestId.substr(0, PERIODIC_PREFIX.size()) == PERIODIC_PREFIX;
    std::vector<CheckRecord>& list = periodic ? cache.cycles : cache.manualChecks;
    CheckRecord record;
    record.requestId = id;
    record.start = in.at;
    if (evidence_.any()) {
      record.startLine = evidence_.line(in);
    }
    if (periodic) {
      record.endpointCount = nextEndpointCount_;
      nextEndpointCount_.reset();
    }
    list.push_back(record);
    found = checks_.emplace(id, Place(periodic, list.size() - 1)).first;
  }
  return recordAt(cache, found->second);
}

CheckRecord& CheckReader::recordAt(CacheRecord& cache, Place place) {
  return place.first ? cache.cycles[place.second] : cache.manualChecks[place.second];
}

}  // namespace veranda::reachabilityCache::trace
