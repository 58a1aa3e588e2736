#include "TraceBuilder.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <optional>
#include <utility>

#include "LineRules.h"
#include "Problems.h"
#include "TraceWindow.h"
#include "diagnostics/LogSchema.h"

namespace veranda::reachabilityCache::trace {

using namespace logSchema;  // the names the lines are read with
namespace {

constexpr std::size_t KEPT_LINE_BYTES = 300;
constexpr uint64_t KEPT_AMBIGUOUS = 5;

}  // namespace

TraceBuilder::Readers::Readers(Evidence& evidence, bool created)
    : checks(evidence),
      causes(evidence, checks),
      answers(checks, causes, created),
      changes(evidence, checks, causes, answers) {}

TraceBuilder::TraceBuilder(TraceScope scope)
    : storyEntity_(scope.evidence.entity),
      window_(scope.window),
      inWindow_(!window_.limits()),
      evidence_(std::move(scope.evidence)) {
  trace_.limits = scope.limits;
  evidence_.limitTo(window_);
}

void TraceBuilder::enterWindow(Micros at) {
  if (inWindow_ || window_.before(at) || at == NO_TIME) {
    return;
  }
  inWindow_ = true;
  messagesBefore_ = trace_.messages;
  trace_.leftOut.answers = 0;
  trace_.leftOut.changes = 0;
  trace_.leftOut.storyChanges = 0;
  for (CacheRecord& cache : trace_.caches) {
    forgetBeforeWindow(trace_, cache, window_);
  }
}

void TraceBuilder::pastWindow(const LogMessage& message) {
  const auto found = current_.find(message.pid.value_or(-1));
  if (found != current_.end()) {
    trace_.caches[found->second].lastSeen = window_.to;
  }
}

void TraceBuilder::addDamaged(uint64_t lines, const std::string& first) {
  if (trace_.firstDamaged.empty()) {
    trace_.firstDamaged = first;
  }
  trace_.damagedLines += lines;
}

void TraceBuilder::beginSection(std::string_view title) {
  section_ = std::string(title);
  previousBoot_ = title.find("LAST LOGCAT") != std::string_view::npos;
  current_.clear();  // another log: its processes are others
}

void TraceBuilder::add(const LogMessage& message) {
  if (message.tag == RATE_LIMITER_TAG) {
    rateLimited(message);
    return;
  }
  const Micros at = trace_.clock.toMicros(message.clock);
  trace_.hasTime = trace_.hasTime || at != NO_TIME;
  if (window_.after(at)) {
    pastWindow(message);
    return;
  }
  enterWindow(at);
  const std::optional<std::string_view> metric =
      message.tag == tag::METRIC ? cacheMetricName(message.text) : std::nullopt;
  const std::optional<LibraryLine> line = metric ? std::nullopt : parseLibraryLine(message.text);
  if (!metric && !line) {
    damaged(message);
    return;
  }
  ++trace_.messages;
  ++sequence_;
  if (line && line->label == label::APPLIANCE_DRIVER_REACHABILITY_CHECKER) {
    return;  // the checker is made before its cache and says nothing about it
  }
  const LibraryLine none;
  const std::string ambiguity = line ? ambiguityOf(message, *line) : std::string();
  // An ambiguous line is no cache's creation.
  const LibraryLine& read = line && ambiguity.empty() ? *line : none;
  CacheRecord* found = cacheFor(message, read, at);
  if (found == nullptr) {
    ++trace_.leftOut.processLines;
    return;
  }
  CacheRecord& cache = *found;
  if (at != NO_TIME) {
    cache.firstSeen = cache.firstSeen == NO_TIME ? at : cache.firstSeen;
    cache.lastSeen = std::max(cache.lastSeen, at);
  }
  cache.firstMessage = cache.firstMessage == 0 ? sequence_ : cache.firstMessage;
  cache.lastMessage = sequence_;
  if (metric) {
    ++cache.metrics[std::string(*metric)];
    return;
  }
  const CacheMessage in{trace_,    cache,       message, *line, at, message.tid.value_or(-1),
                        sequence_, storyEntity_};
  if (!ambiguity.empty()) {
    ambiguous(in, ambiguity);
    return;
  }
  reading_->causes.message(in);
  if (message.tag == tag::FACADE) {
    facade(in);
  } else if (message.tag == tag::STORE) {
    store(in);
  } else if (message.tag == tag::UPDATER) {
    updater(in);
  } else {
    checker(in);
  }
}

CacheRecord* TraceBuilder::cacheFor(const LogMessage& message, const LibraryLine& line, Micros at) {
  const int64_t process = message.pid.value_or(-1);
  const bool creation =
      line.label == label::REACHABILITY_CACHE && line.has(key::EVENT, event::CACHE_CREATED);
  auto found = current_.find(process);
  if (creation || found == current_.end()) {
    if (trace_.caches.size() >= trace_.limits.caches) {
      current_.erase(process);  // its lines are left out from here on
      return nullptr;
    }
    CacheRecord record;
    record.pid = message.pid;
    record.section = section_;
    record.previousBoot = previousBoot_;
    record.firstSeen = at;
    trace_.caches.push_back(std::move(record));
    readers_.push_back(std::make_unique<Readers>(evidence_, creation));
    found = current_.insert_or_assign(process, trace_.caches.size() - 1).first;
  }
  reading_ = readers_[found->second].get();
  return &trace_.caches[found->second];
}

void TraceBuilder::facade(const CacheMessage& in) {
  const LibraryLine& line = in.line;
  CacheRecord& cache = in.cache;
  if (line.label == label::REACHABILITY_CACHE && line.has(key::EVENT, event::CACHE_CREATED)) {
    cache.creationSeen = true;
    cache.created = in.at;
    cache.maxCacheSize = line.number(key::MAX_CACHE_SIZE);
    if (const auto periodic = line.get(key::PERIODIC_UPDATES)) {
      cache.periodicUpdates = *periodic == value::TRUE_TEXT;
    }
  } else if (line.label == label::REACHABILITY_CACHE_DESTRUCTOR &&
             line.has(key::EVENT, event::CACHE_DESTROYED)) {
    cache.destructionSeen = true;
    cache.destroyed = in.at;
  }
}

void TraceBuilder::store(const CacheMessage& in) {
  const std::string_view label = in.line.label;
  if (label == label::CACHE_CORE) {
    in.cache.storeCapacity = in.line.number(key::MAX_SIZE);
  } else if (label == label::INSERT_ENDPOINT) {
    const std::optional<std::string_view> why = in.line.get(key::REASON);
    if (why == reason::CACHE_FULL) {
      countProblem(in.cache, CACHE_FULL, in.at);
    } else if (why) {
      countProblem(in.cache, INSERT_FAILED, in.at);
    }
    reading_->answers.storeLine(in);
  } else if (label == label::NOTIFY_REACHABILITY_LISTENERS) {
    if (!reading_->changes.notification(in)) {
      damaged(in.message);
    }
  } else {
    reading_->answers.storeLine(in);
  }
}

void TraceBuilder::updater(const CacheMessage& in) {
  const std::string_view label = in.line.label;
  if (label == label::PROCESS_REACHABILITY_RESULTS) {
    const std::string ambiguity = reading_->changes.summary(in);
    if (!ambiguity.empty()) {
      ambiguous(in, ambiguity);
    }
  } else if (label == label::ENABLE_PROACTIVE_UPDATES) {
    if (in.line.has(key::REASON, reason::REGISTRATION_FAILED)) {
      countProblem(in.cache, SUBSCRIPTION_FAILED, in.at);
    } else if (const auto id = in.line.get(key::CALLBACK_ID)) {
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

void TraceBuilder::damaged(const LogMessage& message) {
  if (trace_.damagedLines++ == 0) {
    trace_.firstDamaged = message.lines.front().substr(0, KEPT_LINE_BYTES);
  }
}

// "uid=10187(com.example.home) expire 40 lines", "... identical 12 lines":
// lines of the notice's process that the platform did not keep.
void TraceBuilder::rateLimited(const LogMessage& message) {
  const auto found = current_.find(message.pid.value_or(-1));
  if (found == current_.end()) {
    return;  // another process's
  }
  const Micros at = trace_.clock.toMicros(message.clock);
  CacheRecord& cache = trace_.caches[found->second];
  const std::string& text = message.text;
  const bool expired = text.find(" expire ") != std::string::npos;
  const bool identical = text.find(" identical ") != std::string::npos;
  if (!expired && !identical) {
    return;
  }
  const std::size_t word = text.find(expired ? " expire " : " identical ");
  const std::size_t from = text.find(' ', word + 1) + 1;
  uint64_t count = 0;
  for (std::size_t i = from;
       i < text.size() && std::isdigit(static_cast<unsigned char>(text[i])) != 0; ++i) {
    const auto digit = static_cast<uint64_t>(text[i] - '0');
    count = count > (UINT64_MAX - digit) / 10 ? UINT64_MAX : count * 10 + digit;
  }
  ++cache.rateLimitNotices;
  (expired ? cache.expiredLines : cache.identicalLines) += count;
  cache.firstRateLimit = cache.firstRateLimit == NO_TIME ? at : cache.firstRateLimit;
  ++sequence_;
  const LibraryLine none;
  const CacheMessage in{trace_,    cache,       message, none, at, message.tid.value_or(-1),
                        sequence_, storyEntity_};
  readers_[found->second]->answers.loseAll(in, UnknownReason::LINES_DROPPED);
}

// A line that an id holding a line feed or a " key=value" could have
// written: why, or an empty text.
std::string TraceBuilder::ambiguityOf(const LogMessage& message, const LibraryLine& line) {
  // The line after one cut short, with the same header, may be the rest of
  // an id.
  const bool followsCut = cutShort_ && cutShort_->pid == message.pid &&
                          cutShort_->tid == message.tid && cutShort_->clock == message.clock &&
                          cutShort_->tag == message.tag;
  cutShort_.reset();
  if (!isWhole(line) && message.text.size() < MAX_MESSAGE_BYTES) {
    cutShort_ = message;
    return "a line cut short, as by a line feed in an id";
  }
  if (followsCut) {
    return "the line after one cut short, with its header";
  }
  if (!isLabelOfTag(line.label, message.tag)) {
    return "[" + std::string(line.label) + "] under another component's tag";
  }
  for (std::size_t i = 0; i < line.fields.size(); ++i) {
    for (std::size_t k = 0; k < i; ++k) {
      if (line.fields[i].key == line.fields[k].key) {
        return "the key " + std::string(line.fields[i].key) + " twice";
      }
    }
  }
  const std::size_t feed = message.text.find('\n');
  const std::optional<std::string_view> details = line.get(key::DETAILS);
  if (feed != std::string::npos &&
      (!details || feed < static_cast<std::size_t>(details->data() - message.text.data()))) {
    return "a line feed where no field holds one";
  }
  return "";
}

void TraceBuilder::ambiguous(const CacheMessage& in, const std::string& why) {
  CacheRecord& cache = in.cache;
  if (cache.ambiguousLines++ < KEPT_AMBIGUOUS) {
    cache.ambiguous.push_back({in.at, in.message.lines.front().substr(0, KEPT_LINE_BYTES), why});
  }
  // Whatever entity it may be about is unknown until a line tells.
  const std::string& text = in.message.text;
  for (const std::string_view key : {"entityId=", "(entityId="}) {
    for (std::size_t at = text.find(key); at != std::string::npos; at = text.find(key, at + 1)) {
      const std::size_t from = at + key.size();
      const std::size_t to = text.find_first_of(" ,)\n", from);
      const std::string_view id = std::string_view(text).substr(from, to - from);
      if (!id.empty() && in.cache.entityIndex.count(std::string(id)) > 0) {
        reading_->answers.loseEntity(in, id, UnknownReason::AMBIGUOUS);
      }
    }
  }
}

// A cache whose lines end before another's creation, with no line of its
// own destruction, ended there: its process was replaced.
void TraceBuilder::findReplacedProcesses() {
  for (std::size_t i = 0; i < trace_.caches.size(); ++i) {
    CacheRecord& cache = trace_.caches[i];
    if (cache.destructionSeen) {
      continue;
    }
    for (std::size_t k = i + 1; k < trace_.caches.size(); ++k) {
      const CacheRecord& later = trace_.caches[k];
      if (later.section == cache.section && later.creationSeen &&
          later.firstMessage > cache.lastMessage) {
        cache.replacedBy = later.pid;
        break;
      }
    }
  }
}

Trace TraceBuilder::finish(uint64_t bytes, bool bugReport) {
  for (CacheRecord& cache : trace_.caches) {
    for (EntityRecord& entity : cache.entities) {
      settleAnswers(trace_, entity, UINT64_MAX, true);
    }
  }
  if (!inWindow_) {
    trace_.caches.clear();  // the capture ends before the window
  }
  clipToWindow(trace_, window_);
  trace_.messages -= messagesBefore_;
  trace_.evidenceLostFrom = evidence_.lostFrom();
  findReplacedProcesses();
  for (CacheRecord& cache : trace_.caches) {
    checkRhythm(cache, trace_.clock.resolution());
  }
  trace_.bytes = bytes;
  trace_.bugReport = bugReport;
  reading_ = nullptr;
  return std::move(trace_);
}

}  // namespace veranda::reachabilityCache::trace
