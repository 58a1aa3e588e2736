#include "CheckReader.h"

#include <algorithm>
#include <utility>

#include "Problems.h"
#include "diagnostics/LogSchema.h"

namespace veranda::reachabilityCache::trace {

using namespace logSchema;  // the names the lines are read with
namespace {

constexpr std::string_view PERIODIC_PREFIX = requestIdPrefix::PERIODIC;

}  // namespace

void CheckReader::updaterLine(const CacheMessage& in) {
  const LibraryLine& line = in.line;
  const std::optional<std::string_view> why = line.get(key::REASON);
  if (line.label == label::START_PERIODIC_UPDATES) {
    if (periodicRunning_) {
      countProblem(in.cache, DUPLICATE_CHAIN, in.at);
    }
    periodicRunning_ = true;
    in.cache.intervalSeconds = line.signedNumber(key::INTERVAL_SECONDS);
    in.cache.initialDelayMs = line.signedNumber(key::INITIAL_DELAY_MS);
  } else if (line.label == label::STOP_PERIODIC_UPDATES) {
    periodicRunning_ = false;
  } else if (line.label == label::PERFORM_PERIODIC_UPDATE) {
    if (in.message.tid) {
      updaterThreads_.insert(in.thread);
    }
    periodicUpdate(in);
  } else if (line.label == label::MANUAL_TRIGGER &&
             why == reason::CHECK_START_FAILED) {  // a manual trigger's task
    countProblem(in.cache, CHECK_START_FAILED, in.at);
    check(in, line.get(key::REQUEST_ID).value_or("")).startFailed = true;
  }
}

void CheckReader::periodicUpdate(const CacheMessage& in) {
  const std::optional<std::string_view> why = in.line.get(key::REASON);
  if (why == reason::CHR_PROVIDER_NULL) {
    countProblem(in.cache, PROVIDER_NULL, in.at);
  } else if (why == reason::CHR_QUERY_RETURNED_EMPTY) {
    countProblem(in.cache, PROVIDER_EMPTY, in.at);
    CheckRecord empty;
    empty.start = in.at;
    empty.endpointCount = 0;
    empty.providerEmpty = true;
    in.cache.cycles.push_back(empty);
  } else if (why == reason::CHECK_START_FAILED) {
    countProblem(in.cache, CHECK_START_FAILED, in.at);
    check(in, in.line.get(key::REQUEST_ID).value_or("")).startFailed = true;
  } else if (const auto count = in.line.number(key::ENDPOINT_COUNT)) {
    nextEndpointCount_ = count;
  }
}

void CheckReader::checkerLine(const CacheMessage& in) {
  const LibraryLine& line = in.line;
  if (line.label == label::CHECK_REACHABILITY) {
    if (const auto details = line.get(key::DETAILS)) {
      // "requestId=periodic_3 count=17" and one line per endpoint
      const std::string first = "[]: " + std::string(details->substr(0, details->find('\n')));
      const std::optional<LibraryLine> head = parseLibraryLine(first);  // views into `first`
      if (head && head->get(key::REQUEST_ID)) {
        CheckRecord& record = check(in, *head->get(key::REQUEST_ID));
        record.endpointCount = head->number(key::COUNT);
      }
    } else if (line.has(key::STATUS, status::REQUEST_SENT)) {
      check(in, line.get(key::REQUEST_ID).value_or("")).started = true;
    }
  } else if (line.label == label::PROCESS_DISCOVERED_DEVICES) {
    const std::string_view requestId = line.get(key::REQUEST_ID).value_or("");
    CheckRecord& record = check(in, requestId);
    record.answered = true;
    record.answeredAt = in.at;
    record.resultCount = line.number(key::RESULT_COUNT);
    if (evidence_.any()) {
      record.answerLine = evidence_.line(in);
    }
    answers_[in.thread] = checks_.at(std::string(requestId));
  }
}

const CheckRecord* CheckReader::answering(const CacheRecord& cache, int64_t thread) const {
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
  checks_.erase(record.requestId);  // no line names it again
  answers_.erase(answer);
  return &record;
}

CheckRecord& CheckReader::check(const CacheMessage& in, std::string_view requestId) {
  const std::string id(requestId);
  const auto found = checks_.find(id);
  if (found != checks_.end()) {
    return recordAt(in.cache, found->second);
  }
  const bool periodic = requestId.substr(0, PERIODIC_PREFIX.size()) == PERIODIC_PREFIX;
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
  Trace& trace = in.trace;
  Place place(periodic, UNLISTED);
  if (trace.keptChecks < trace.limits.checks) {
    ++trace.keptChecks;
    std::vector<CheckRecord>& list = periodic ? in.cache.cycles : in.cache.manualChecks;
    list.push_back(std::move(record));
    place.second = list.size() - 1;
  } else {
    ++(periodic ? in.cache.cyclesLeftOut : in.cache.manualChecksLeftOut);
    ++trace.leftOut.checks;
    unlisted_ = std::move(record);
  }
  // Checks never answered would pile up: the oldest are forgotten.
  order_.push_back(id);
  checks_.emplace(id, place);
  while (checks_.size() > trace.limits.pendingChecks && !order_.empty()) {
    if (checks_.erase(order_.front()) > 0) {
      ++trace.leftOut.pendingChecks;
    }
    order_.pop_front();
  }
  if (order_.size() > 4 * trace.limits.pendingChecks) {  // ids no longer in checks_
    order_.erase(std::remove_if(order_.begin(), order_.end(),
                                [this](const std::string& old) { return checks_.count(old) == 0; }),
                 order_.end());
  }
  return recordAt(in.cache, place);
}

CheckRecord& CheckReader::recordAt(CacheRecord& cache, Place place) {
  if (place.second == UNLISTED) {
    return unlisted_;
  }
  return place.first ? cache.cycles[place.second] : cache.manualChecks[place.second];
}

}  // namespace veranda::reachabilityCache::trace
