#include "TraceBuilder.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "Problems.h"

namespace veranda::reachabilityCache::trace {
namespace {

constexpr std::string_view METRIC_PREFIX = "metricName=ReachabilityCache.";

}  // namespace

TraceBuilder::Readers::Readers(Evidence& evidence)
    : checks(evidence),
      causes(evidence, checks),
      answers(causes),
      changes(evidence, checks, causes, answers) {}

TraceBuilder::TraceBuilder(TraceScope scope)
    : window_(scope.window), inWindow_(!window_.limits()), evidence_(std::move(scope.evidence)) {
  evidence_.limitTo(window_);
}

void TraceBuilder::enterWindow(Micros at) {
  if (inWindow_ || window_.before(at) || at == NO_TIME) {
    return;
  }
  inWindow_ = true;
  messagesBefore_ = trace_.messages;
  for (CacheRecord& cache : trace_.caches) {
    cache.problems.clear();
    cache.metrics.clear();
    cache.eventsReceived = 0;
    cache.eventsApplied = 0;
    cache.changes = 0;
  }
}

void TraceBuilder::pastWindow(const LogMessage& message) {
  const auto found = current_.find(message.pid.value_or(-1));
  if (found != current_.end()) {
    trace_.caches[found->second].lastSeen = window_.to;
  }
}

void TraceBuilder::add(const LogMessage& message) {
  const Micros at = trace_.clock.toMicros(message.clock);
  trace_.hasTime = trace_.hasTime || at != NO_TIME;
  if (window_.after(at)) {
    pastWindow(message);
    return;
  }
  enterWindow(at);
  const std::size_t metric = message.text.find(METRIC_PREFIX);
  const std::optional<LibraryLine> line =
      metric == std::string::npos ? parseLibraryLine(message.text) : std::nullopt;
  if (metric == std::string::npos && !line) {
    ++trace_.damagedLines;
    return;
  }
  ++trace_.messages;
  if (line && line->label == "ApplianceDriverReachabilityChecker") {
    return;  // the checker is made before its cache and says nothing about it
  }
  const LibraryLine none;
  const LibraryLine& read = line ? *line : none;
  CacheRecord& cache = cacheFor(message, read, at);
  if (at != NO_TIME) {
    cache.firstSeen = cache.firstSeen == NO_TIME ? at : cache.firstSeen;
    cache.lastSeen = std::max(cache.lastSeen, at);
  }
  if (metric != std::string::npos) {
    constexpr std::size_t KEY_LENGTH = std::string_view("metricName=").size();
    const std::string_view name = std::string_view(message.text).substr(metric + KEY_LENGTH);
    ++cache.metrics[std::string(name.substr(0, name.find(' ')))];
    return;
  }
  const CacheMessage in{cache, message, read, at, message.tid.value_or(-1), trace_.messages};
  reading_->causes.message(in);
  if (message.tag == "ReachabilityCache-ReachabilityCache") {
    facade(in);
  } else if (message.tag == "ReachabilityCache-CacheCore") {
    store(in);
  } else if (message.tag == "ReachabilityCache-ReachabilityUpdater") {
    updater(in);
  } else {
    checker(in);
  }
}

CacheRecord& TraceBuilder::cacheFor(const LogMessage& message, const LibraryLine& line, Micros at) {
  const int process = message.pid.value_or(-1);
  const bool creation = line.label == "ReachabilityCache" && line.has("event", "cacheCreated");
  auto found = current_.find(process);
  if (creation || found == current_.end()) {
    CacheRecord record;
    record.pid = message.pid;
    record.firstSeen = at;
    trace_.caches.push_back(std::move(record));
    readers_.push_back(std::make_unique<Readers>(evidence_));
    found = current_.insert_or_assign(process, trace_.caches.size() - 1).first;
  }
  reading_ = readers_[found->second].get();
  return trace_.caches[found->second];
}

void TraceBuilder::facade(const CacheMessage& in) {
  const LibraryLine& line = in.line;
  CacheRecord& cache = in.cache;
  if (line.label == "ReachabilityCache" && line.has("event", "cacheCreated")) {
    cache.creationSeen = true;
    cache.created = in.at;
    cache.maxCacheSize = line.number("maxCacheSize");
    if (const auto periodic = line.get("periodicUpdates")) {
      cache.periodicUpdates = *periodic == "true";
    }
  } else if (line.label == "~ReachabilityCache" && line.has("event", "cacheDestroyed")) {
    cache.destructionSeen = true;
    cache.destroyed = in.at;
  }
}

void TraceBuilder::store(const CacheMessage& in) {
  const std::string_view label = in.line.label;
  if (label == "CacheCore") {
    in.cache.storeCapacity = in.line.number("maxSize");
  } else if (label == "insertEndpoint") {
    const std::optional<std::string_view> reason = in.line.get("reason");
    if (reason == "cacheFull") {
      countProblem(in.cache, CACHE_FULL, in.at);
    } else if (reason) {
      countProblem(in.cache, INSERT_FAILED, in.at);
    }
    reading_->answers.storeLine(in);
  } else if (label == "notifyReachabilityListeners") {
    if (!reading_->changes.notification(in)) {
      ++trace_.damagedLines;
    }
  } else {
    reading_->answers.storeLine(in);
  }
}

void TraceBuilder::updater(const CacheMessage& in) {
  const std::string_view label = in.line.label;
  if (label == "processReachabilityResults") {
    reading_->changes.summary(in);
  } else if (label == "enableProactiveUpdates") {
    if (in.line.has("reason", "registrationFailed")) {
      countProblem(in.cache, SUBSCRIPTION_FAILED, in.at);
    } else if (const auto id = in.line.get("callbackId")) {
      in.cache.callbackId = std::string(*id);
    }
  } else {
    reading_->checks.updaterLine(in);
  }
}

void TraceBuilder::checker(const CacheMessage& in) {
  reading_->checks.checkerLine(in);
  reading_->events.checkerLine(in);
}

Trace TraceBuilder::finish(uint64_t bytes, bool bugReport) {
  if (!inWindow_) {
    trace_.caches.clear();  // the capture ends before the window
  }
  clipToWindow(trace_, window_);
  trace_.messages -= messagesBefore_;
  trace_.evidenceLostFrom = evidence_.lostFrom();
  for (CacheRecord& cache : trace_.caches) {
    checkRhythm(cache, trace_.clock.resolution());
  }
  trace_.bytes = bytes;
  trace_.bugReport = bugReport;
  reading_ = nullptr;
  return std::move(trace_);
}

}  // namespace veranda::reachabilityCache::trace
