#include "TraceBuilder.h"

#include <algorithm>
#include <charconv>
#include <utility>

namespace veranda::reachabilityCache::trace {
namespace {

constexpr std::string_view PERIODIC_PREFIX = "periodic_";
constexpr std::string_view METRIC_PREFIX = "metricName=ReachabilityCache.";

// The whole of `text` as an integer of type T; nothing when it is missing,
// empty, or not entirely such a number.
template <typename T>
std::optional<T> integer(std::optional<std::string_view> text) {
  T value = 0;
  if (!text || text->empty()) {
    return std::nullopt;
  }
  const auto [end, error] = std::from_chars(text->data(), text->data() + text->size(), value);
  if (error != std::errc() || end != text->data() + text->size()) {
    return std::nullopt;
  }
  return value;
}

std::optional<uint64_t> number(std::optional<std::string_view> text) {
  return integer<uint64_t>(text);
}

std::optional<int64_t> signedNumber(std::optional<std::string_view> text) {
  return integer<int64_t>(text);
}

// The physical line of `message` that holds `text` (a line of a multi-line
// message), or its first line.
const std::string& lineHolding(const LogMessage& message, std::string_view text) {
  for (const std::string& line : message.lines) {
    if (line.size() >= text.size() &&
        line.compare(line.size() - text.size(), text.size(), text.data(), text.size()) == 0) {
      return line;
    }
  }
  return message.lines.front();
}

}  // namespace

uint64_t CacheRecord::seenChanges() const {
  uint64_t seen = 0;
  for (const EntityRecord& entity : entities) {
    seen += entity.changes.size();
  }
  return seen;
}

uint64_t CacheRecord::unseenChanges() const {
  const uint64_t seen = seenChanges();
  return changes > seen ? changes - seen : 0;
}

TraceBuilder::TraceBuilder(std::string storyEntity) : storyEntity_(std::move(storyEntity)) {}

int TraceBuilder::threadKey(const LogMessage& message) const { return message.tid.value_or(-1); }

bool TraceBuilder::inStory(std::string_view entityId) const {
  return !storyEntity_.empty() && entityId == storyEntity_;
}

void TraceBuilder::add(const LogMessage& message) {
  const Micros at = trace_.clock.toMicros(message.clock);
  trace_.hasTime = trace_.hasTime || at != NO_TIME;
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
  CacheRecord& cache = cacheFor(message, line.value_or(LibraryLine{}), at);
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
  if (message.tag == "ReachabilityCache-ReachabilityCache") {
    facade(*line, at);
  } else if (message.tag == "ReachabilityCache-CacheCore") {
    store(*line, at, message);
  } else if (message.tag == "ReachabilityCache-ReachabilityUpdater") {
    updater(*line, at, message);
  } else {
    checker(*line, at, message);
  }
}

// The cache of the message's process; "cacheCreated" starts a new one, and a
// process seen first in the middle of its life gets one from its first line.
CacheRecord& TraceBuilder::cacheFor(const LogMessage& message, const LibraryLine& line, Micros at) {
  const int process = message.pid.value_or(-1);
  const bool creation = line.label == "ReachabilityCache" && line.has("event", "cacheCreated");
  auto found = current_.find(process);
  if (creation || found == current_.end()) {
    CacheRecord record;
    record.pid = message.pid;
    record.firstSeen = at;
    trace_.caches.push_back(std::move(record));
    pending_.emplace_back();
    found = current_.insert_or_assign(process, trace_.caches.size() - 1).first;
  }
  cache_ = &trace_.caches[found->second];
  state_ = &pending_[found->second];
  return *cache_;
}

void TraceBuilder::problem(const char* kind, Micros at, uint64_t count) {
  ProblemRecord& record = cache_->problems[kind];
  if (record.count == 0) {
    record.first = at;
  }
  record.count += count;
}

EntityRecord& TraceBuilder::entity(std::string_view id) {
  const std::string key(id);
  const auto found = cache_->entityIndex.find(key);
  if (found != cache_->entityIndex.end()) {
    return cache_->entities[found->second];
  }
  cache_->entityIndex.emplace(key, cache_->entities.size());
  cache_->entities.push_back({});
  cache_->entities.back().id = key;
  return cache_->entities.back();
}

void TraceBuilder::hold(std::string_view entityId, std::string_view endpointId,
                        std::optional<EndpointState> state, Micros at, std::optional<int> thread) {
  std::map<std::string, EndpointState>& endpoints = state_->held[std::string(entityId)];
  state_->uncertain.erase(std::string(entityId));
  if (thread) {
    const auto found = endpoints.find(std::string(endpointId));
    const Pending::Before before{
        *thread, found != endpoints.end(),
        found != endpoints.end() ? found->second : EndpointState::UNREACHABLE};
    const auto key = std::make_pair(std::string(entityId), std::string(endpointId));
    const auto known = state_->before.find(key);
    if (known == state_->before.end() || known->second.thread != *thread) {
      state_->before[key] = before;
    }
  }
  if (state == EndpointState::UNREACHABLE && endpoints.count(std::string(endpointId)) == 0) {
    // nothing was inserted: an unreachable result leaves the store alone
  } else if (state) {
    // An event's reachable result merges no capabilities: it keeps what the
    // endpoint had.
    EndpointState& held = endpoints.try_emplace(std::string(endpointId), *state).first->second;
    held = *state == EndpointState::UNCONFIRMED ? std::max(held, *state) : *state;
  } else {
    endpoints.erase(std::string(endpointId));
  }
  noteAnswer(entityId, at);
}

void TraceBuilder::forgetEntity(std::string_view entityId, Micros at) {
  state_->held.erase(std::string(entityId));
  state_->uncertain.erase(std::string(entityId));
  noteAnswer(entityId, at);
}

void TraceBuilder::noteAnswer(std::string_view entityId, Micros at) {
  Answer answer = Answer::ABSENT;
  const auto held = state_->held.find(std::string(entityId));
  if (state_->uncertain.count(std::string(entityId)) > 0) {
    answer = Answer::UNKNOWN;
  } else if (held != state_->held.end() && !held->second.empty()) {
    answer = Answer::UNREACHABLE;
    for (const auto& endpoint : held->second) {
      answer = endpoint.second == EndpointState::CONFIRMED ? Answer::REACHABLE : answer;
    }
  }
  EntityRecord& record = entity(entityId);
  std::vector<AnswerRecord>& answers = record.answers;
  if (!answers.empty() && answers.back().message == trace_.messages) {
    answers.pop_back();  // one message tells one answer: its last
  }
  const Answer last = answers.empty() ? Answer::ABSENT : answers.back().answer;
  if (answer != last) {
    answers.push_back({at, answer, trace_.messages});
  }
}

std::optional<TraceBuilder::EndpointState> TraceBuilder::heldState(
    const std::string& entityId, const std::string& endpointId) const {
  const auto entity = state_->held.find(entityId);
  if (entity == state_->held.end()) {
    return std::nullopt;
  }
  const auto endpoint = entity->second.find(endpointId);
  return endpoint == entity->second.end() ? std::nullopt
                                          : std::optional<EndpointState>(endpoint->second);
}

void TraceBuilder::setHeld(const std::string& entityId, const std::string& endpointId,
                           std::optional<EndpointState> state) {
  if (state) {
    state_->held[entityId][endpointId] = *state;
  } else if (state_->held.count(entityId) > 0) {
    state_->held[entityId].erase(endpointId);
  }
}

std::map<std::pair<std::string, std::string>, std::optional<TraceBuilder::EndpointState>>
TraceBuilder::rollBack(int thread) {
  std::map<std::pair<std::string, std::string>, std::optional<EndpointState>> after;
  for (auto before = state_->before.begin(); before != state_->before.end();) {
    if (before->second.thread != thread) {
      ++before;
      continue;
    }
    const auto& [entityId, endpointId] = before->first;
    after[before->first] = heldState(entityId, endpointId);
    setHeld(
        entityId, endpointId,
        before->second.held ? std::optional<EndpointState>(before->second.state) : std::nullopt);
    before = state_->before.erase(before);
  }
  return after;
}

void TraceBuilder::observe(const LibraryLine& line, Micros at) {
  const std::string_view entityId = line.get("entityId").value_or("");
  if (entityId.empty()) {
    return;
  }
  const std::string id(entityId);
  if (line.has("reason", "notInCache")) {
    if (state_->held.count(id) > 0 && !state_->held[id].empty()) {
      forgetEntity(entityId, at);
    }
    return;
  }
  if (state_->held.count(id) == 0 || state_->held[id].empty()) {
    return;  // which endpoints it holds, the capture does not tell yet
  }
  state_->uncertain.erase(id);
  const bool reachable = line.has("reachable", "true");
  std::map<std::string, EndpointState>& endpoints = state_->held[id];
  bool modelled = false;
  for (const auto& endpoint : endpoints) {
    modelled = modelled || endpoint.second == EndpointState::CONFIRMED;
  }
  if (reachable && !modelled) {
    endpoints[""] = EndpointState::CONFIRMED;  // an endpoint the capture never named
  } else if (!reachable && modelled) {
    for (auto& endpoint : endpoints) {
      endpoint.second = std::min(endpoint.second, EndpointState::UNCONFIRMED);
    }
  }
  noteAnswer(entityId, at);
}

void TraceBuilder::correct(std::string_view entityId, std::string_view endpointId,
                           bool reachableBefore, int thread, Micros at) {
  static const std::string UNNAMED;  // no endpoint id is empty
  std::map<std::string, EndpointState>& endpoints = state_->held[std::string(entityId)];
  // What the held endpoints said before this result's own lines.
  const auto before = state_->before.find({std::string(entityId), std::string(endpointId)});
  const bool useBefore = before != state_->before.end() && before->second.thread == thread;
  bool reachable = false;
  for (const auto& endpoint : endpoints) {
    const bool own = useBefore && endpoint.first == endpointId;
    reachable = reachable || (!own && endpoint.second == EndpointState::CONFIRMED);
  }
  if (useBefore && before->second.held) {
    reachable = reachable || before->second.state == EndpointState::CONFIRMED;
  }
  if (reachableBefore && !reachable) {
    endpoints[UNNAMED] = EndpointState::CONFIRMED;
  } else if (!reachableBefore && reachable) {
    for (auto& endpoint : endpoints) {
      endpoint.second = std::min(endpoint.second, EndpointState::UNCONFIRMED);
    }
  }
  noteAnswer(entityId, at);
}

// True while a check's answer is being applied on the message's thread.
bool TraceBuilder::checkAnswering(const LogMessage& message) const {
  return state_->answers.count(threadKey(message)) > 0;
}

void TraceBuilder::facade(const LibraryLine& line, Micros at) {
  if (line.label == "ReachabilityCache" && line.has("event", "cacheCreated")) {
    cache_->creationSeen = true;
    cache_->created = at;
    cache_->maxCacheSize = number(line.get("maxCacheSize"));
    if (const auto periodic = line.get("periodicUpdates")) {
      cache_->periodicUpdates = *periodic == "true";
    }
  } else if (line.label == "~ReachabilityCache" && line.has("event", "cacheDestroyed")) {
    cache_->destructionSeen = true;
    cache_->destroyed = at;
  }
}

void TraceBuilder::store(const LibraryLine& line, Micros at, const LogMessage& message) {
  const std::string_view label = line.label;
  if (label == "CacheCore") {
    cache_->storeCapacity = number(line.get("maxSize"));
  } else if (label == "insertEndpoint") {
    const std::optional<std::string_view> reason = line.get("reason");
    if (reason == "cacheFull") {
      problem(CACHE_FULL, at);
    } else if (reason) {
      problem(INSERT_FAILED, at);
    }
    const std::optional<std::string_view> entityId = line.get("entityId");
    const std::optional<std::string_view> endpointId = line.get("endpointId");
    if (!reason && entityId && endpointId) {
      entity(*entityId).endpoints.emplace(*endpointId);
      if (line.has("action", "newEntity") || line.has("action", "appended")) {
        // a check's answer or the host's record: with capabilities
        hold(*entityId, *endpointId, EndpointState::CONFIRMED, at, threadKey(message));
      }
    }
  } else if (label == "removeEndpoint" && (line.has("action", "removedEndpointAndEntity") ||
                                           line.has("action", "removedEndpoint"))) {
    hold(line.get("entityId").value_or(""), line.get("endpointId").value_or(""), std::nullopt, at);
  } else if (label == "removeEntity" && line.has("action", "removedEntity")) {
    forgetEntity(line.get("entityId").value_or(""), at);
  } else if (label == "clear" && line.has("action", "cleared")) {
    std::vector<std::string> held;
    for (const auto& entry : state_->held) {
      held.push_back(entry.first);
    }
    for (const std::string& entityId : held) {
      forgetEntity(entityId, at);
    }
  } else if (label == "clearEndpointCapabilities" && line.has("action", "clearedCapabilities")) {
    hold(line.get("entityId").value_or(""), line.get("endpointId").value_or(""),
         EndpointState::UNREACHABLE, at, threadKey(message));
  } else if (label == "isEntityReachable") {
    observe(line, at);
  } else if (label == "notifyReachabilityListeners") {
    notification(line, at, message);
  }
}

void TraceBuilder::updater(const LibraryLine& line, Micros at, const LogMessage& message) {
  const std::string_view label = line.label;
  const std::optional<std::string_view> reason = line.get("reason");
  if (label == "startPeriodicUpdates") {
    if (state_->periodicRunning) {
      problem(DUPLICATE_CHAIN, at);
    }
    state_->periodicRunning = true;
    cache_->intervalSeconds = signedNumber(line.get("intervalSeconds"));
    cache_->initialDelayMs = signedNumber(line.get("initialDelayMs"));
  } else if (label == "stopPeriodicUpdates") {
    state_->periodicRunning = false;
  } else if (label == "performPeriodicUpdate") {
    if (reason == "chrProviderNull") {
      problem(PROVIDER_NULL, at);
    } else if (reason == "chrQueryReturnedEmpty") {
      problem(PROVIDER_EMPTY, at);
      CheckRecord empty;
      empty.start = at;
      empty.endpointCount = 0;
      empty.providerEmpty = true;
      cache_->cycles.push_back(empty);
    } else if (reason == "checkStartFailed") {
      problem(CHECK_START_FAILED, at);
      check(line.get("requestId").value_or(""), at).startFailed = true;
    } else if (const auto count = number(line.get("endpointCount"))) {
      state_->nextEndpointCount = count;
    }
  } else if (label.empty() && reason == "checkStartFailed") {  // a manual trigger's task
    problem(CHECK_START_FAILED, at);
    check(line.get("requestId").value_or(""), at).startFailed = true;
  } else if (label == "processReachabilityResults") {
    summary(line, at, message);
  } else if (label == "enableProactiveUpdates") {
    if (reason == "registrationFailed") {
      problem(SUBSCRIPTION_FAILED, at);
    } else if (const auto id = line.get("callbackId")) {
      cache_->callbackId = std::string(*id);
    }
  }
}

void TraceBuilder::checker(const LibraryLine& line, Micros at, const LogMessage& message) {
  const std::string_view label = line.label;
  if (label == "checkReachability") {
    if (const auto details = line.get("details")) {
      // "requestId=periodic_3 count=17" and one line per endpoint
      const std::string first = "[]: " + std::string(details->substr(0, details->find('\n')));
      const std::optional<LibraryLine> head = parseLibraryLine(first);  // views into `first`
      if (head && head->get("requestId")) {
        CheckRecord& record = check(*head->get("requestId"), at);
        record.endpointCount = number(head->get("count"));
      }
    } else if (line.has("status", "requestSent")) {
      check(line.get("requestId").value_or(""), at).started = true;
    }
  } else if (label == "processDiscoveredDevices") {
    const std::string_view requestId = line.get("requestId").value_or("");
    CheckRecord& record = check(requestId, at);
    record.answered = true;
    record.answeredAt = at;
    record.resultCount = number(line.get("resultCount"));
    if (!storyEntity_.empty()) {
      record.answerLine = message.lines.front();
    }
    state_->answers[threadKey(message)] = state_->checks.at(std::string(requestId));
  } else if (label == "stateChangeCallback" && line.has("action", "invokingCallback")) {
    ++cache_->eventsReceived;
    if (!storyEntity_.empty()) {
      state_->lastEvent[std::string(line.get("endpointId").value_or(""))] = message.lines.front();
    }
  }
}

// The check with `requestId`, made when its first line is seen.
CheckRecord& TraceBuilder::check(std::string_view requestId, Micros at) {
  const std::string id(requestId);
  auto found = state_->checks.find(id);
  if (found == state_->checks.end()) {
    const bool periodic = requestId.substr(0, PERIODIC_PREFIX.size()) == PERIODIC_PREFIX;
    std::vector<CheckRecord>& list = periodic ? cache_->cycles : cache_->manualChecks;
    CheckRecord record;
    record.requestId = id;
    record.start = at;
    if (periodic) {
      record.endpointCount = state_->nextEndpointCount;
      state_->nextEndpointCount.reset();
    }
    list.push_back(record);
    found = state_->checks.emplace(id, std::make_pair(periodic, list.size() - 1)).first;
  }
  const auto [periodic, index] = found->second;
  return periodic ? cache_->cycles[index] : cache_->manualChecks[index];
}

// The log lines that led to a change of `endpointId` told in `message`: the
// check's answer on the same thread, or else the endpoint's last event.
std::vector<std::string> TraceBuilder::causeOf(const LogMessage& message,
                                               std::string_view endpointId) {
  const auto answer = state_->answers.find(threadKey(message));
  if (answer != state_->answers.end()) {
    const auto [periodic, index] = answer->second;
    const CheckRecord& record = periodic ? cache_->cycles[index] : cache_->manualChecks[index];
    return {record.answerLine};
  }
  const auto event = state_->lastEvent.find(std::string(endpointId));
  return event == state_->lastEvent.end() ? std::vector<std::string>{}
                                          : std::vector<std::string>{event->second};
}

void TraceBuilder::notification(const LibraryLine& line, Micros at, const LogMessage& message) {
  const std::optional<std::string_view> endpointId = line.get("endpointId");
  const std::optional<std::string_view> entityId = line.get("entityId");
  const std::optional<std::string_view> reachable = line.get("isReachable");
  if (!endpointId || !entityId || !reachable) {
    ++trace_.damagedLines;
    return;
  }
  EntityRecord& record = entity(*entityId);
  record.endpoints.emplace(*endpointId);
  ChangeRecord change;
  change.at = at;
  change.endpointId = std::string(*endpointId);
  change.reachable = *reachable == "true";
  if (inStory(*entityId)) {
    change.evidence = causeOf(message, *endpointId);
    change.evidence.push_back(message.lines.front());
  }
  const bool confirmed = checkAnswering(message);
  state_->notified = true;
  // Listeners hear only of changes: the entity was the other way before.
  correct(*entityId, *endpointId, *reachable != "true", threadKey(message), at);
  record.changes.push_back(std::move(change));
  hold(*entityId, *endpointId,
       *reachable != "true" ? EndpointState::UNREACHABLE
                            : (confirmed ? EndpointState::CONFIRMED : EndpointState::UNCONFIRMED),
       at, threadKey(message));
  state_->notes[threadKey(message)].push_back({std::string(*endpointId), std::string(*entityId),
                                               *reachable == "true", record.changes.size() - 1});
}

void TraceBuilder::summary(const LibraryLine& line, Micros at, const LogMessage& message) {
  const std::optional<uint64_t> changed = number(line.get("changed"));
  const std::string_view details = line.get("details").value_or("");
  const bool cut = message.text.size() >= MAX_MESSAGE_BYTES;
  std::vector<std::string_view> entryLines;
  for (std::size_t from = details.find('\n'); from != std::string_view::npos;) {
    const std::size_t to = details.find('\n', from + 1);
    entryLines.push_back(
        details.substr(from + 1, to == std::string_view::npos ? to : to - from - 1));
    from = to;
  }
  if (cut && !entryLines.empty()) {
    entryLines.pop_back();  // the platform cut it somewhere: it may read as something else
    problem(SUMMARY_CUT, at);
  }
  std::vector<std::pair<SummaryEntry, std::string_view>> entries;  // with its line
  for (std::string_view text : entryLines) {
    if (const std::optional<SummaryEntry> entry = parseSummaryEntry(text)) {
      entries.emplace_back(*entry, text);
    }
  }

  const int thread = threadKey(message);
  CheckRecord* answered = nullptr;
  const auto answer = state_->answers.find(thread);
  if (answer != state_->answers.end()) {
    const auto [periodic, index] = answer->second;
    CheckRecord& record = periodic ? cache_->cycles[index] : cache_->manualChecks[index];
    // Without thread ids an event's summary may come between: the check's
    // own lists every result, unless the platform cut it.
    if (message.tid || cut || entries.size() == record.resultCount.value_or(entries.size())) {
      answered = &record;
      state_->answers.erase(answer);
    }
  }
  if (answered != nullptr) {
    answered->summarised = true;
    answered->reachable = number(line.get("reachable")).value_or(0);
    answered->unreachable = number(line.get("unreachable")).value_or(0);
    answered->changed = changed.value_or(0);
  } else {
    ++cache_->eventsApplied;
  }
  cache_->changes += changed.value_or(0);

  // The store's lines of this result came before it: apply the result
  // entry by entry from the states before them, then keep what those lines
  // did to endpoints whose entries the platform cut.
  auto after = rollBack(thread);
  std::vector<Pending::Note>& notes = state_->notes[thread];
  for (const auto& item : entries) {
    const SummaryEntry& entry = item.first;
    const std::string_view entryText = item.second;
    after.erase({std::string(entry.entityId), std::string(entry.endpointId)});
    if (entry.entityId.empty()) {
      if (answered == nullptr) {
        problem(UNKNOWN_ENDPOINT, at);
      }
      continue;
    }
    EntityRecord& record = entity(entry.entityId);
    record.endpoints.emplace(entry.endpointId);
    if (!entry.adapterName.empty()) {
      record.adapters.emplace(entry.adapterName);
    }
    if (!entry.insertFailed) {
      // "reachable" and "becameUnreachable" follow a reachable entity.
      correct(entry.entityId, entry.endpointId, entry.reachable != entry.changed, thread, at);
      // An event's result carries no adapter and no capabilities.
      hold(entry.entityId, entry.endpointId,
           !entry.reachable            ? EndpointState::UNREACHABLE
           : entry.adapterName.empty() ? EndpointState::UNCONFIRMED
                                       : EndpointState::CONFIRMED,
           at);
    }
    if (!entry.changed) {
      continue;
    }
    const auto note = std::find_if(notes.begin(), notes.end(), [&](const Pending::Note& n) {
      return n.endpointId == entry.endpointId && n.entityId == entry.entityId &&
             n.reachable == entry.reachable;
    });
    ChangeRecord* change = nullptr;
    if (note != notes.end()) {  // the notification line told it already
      change = &record.changes[note->change];
      notes.erase(note);
    } else {
      record.changes.push_back({});
      change = &record.changes.back();
      change->at = at;
      change->endpointId = std::string(entry.endpointId);
      change->reachable = entry.reachable;
      if (inStory(entry.entityId)) {
        change->evidence = causeOf(message, entry.endpointId);
      }
    }
    change->adapterName = std::string(entry.adapterName);
    if (inStory(entry.entityId)) {
      change->evidence.push_back(message.lines.front());
      const std::string& entryLine = lineHolding(message, entryText);
      if (&entryLine != &message.lines.front()) {
        change->evidence.push_back(entryLine);
      }
    }
  }
  if (message.tid) {
    notes.clear();  // a thread's notifications all come before its summary
  }
  for (const auto& [key, state] : after) {
    setHeld(key.first, key.second, state);
    noteAnswer(key.first, at);
  }
  if (cut && answered != nullptr && !state_->notified) {
    // Without notification lines, what the lost entries said is unknown.
    std::set<std::string> told;
    for (const auto& entry : entries) {
      told.emplace(entry.first.entityId);
    }
    for (const auto& [entityId, endpoints] : state_->held) {
      if (!endpoints.empty() && told.count(entityId) == 0) {
        state_->uncertain.insert(entityId);
        noteAnswer(entityId, at);
      }
    }
  }
}

// Cycles of a second chain, and gaps that stray from the configured interval.
void TraceBuilder::checkRhythm(CacheRecord& cache) {
  cache_ = &cache;
  if (!cache.intervalSeconds || *cache.intervalSeconds <= 0) {
    return;
  }
  const Micros interval = *cache.intervalSeconds * 1000000;
  const Micros tolerance = std::max(interval / 4, trace_.clock.resolution());
  std::vector<std::pair<Micros, Micros>> gaps;  // (gap, time of the later cycle)
  for (std::size_t i = 1; i < cache.cycles.size(); ++i) {
    const Micros from = cache.cycles[i - 1].start;
    const Micros to = cache.cycles[i].start;
    if (from != NO_TIME && to != NO_TIME) {
      gaps.emplace_back(to - from, to);
    }
  }
  if (gaps.empty()) {
    return;
  }
  std::vector<Micros> sorted;
  sorted.reserve(gaps.size());
  for (const auto& gap : gaps) {
    sorted.push_back(gap.first);
  }
  std::nth_element(sorted.begin(), sorted.begin() + static_cast<std::ptrdiff_t>(sorted.size() / 2),
                   sorted.end());
  const Micros median = sorted[sorted.size() / 2];
  const bool twoChains = gaps.size() >= 3 && median + tolerance < interval * 3 / 4;
  if (twoChains && cache.problems.count(DUPLICATE_CHAIN) == 0) {
    problem(DUPLICATE_CHAIN, gaps.front().second);
  }
  if (twoChains || cache.problems.count(DUPLICATE_CHAIN) > 0) {
    return;  // the gaps of two chains say nothing about drift
  }
  for (const auto& [gap, atTime] : gaps) {
    if (gap > interval + tolerance || gap < interval - tolerance) {
      problem(INTERVAL_DRIFT, atTime);
    }
  }
}

Trace TraceBuilder::finish(uint64_t bytes, bool bugReport) {
  for (CacheRecord& cache : trace_.caches) {
    checkRhythm(cache);
  }
  trace_.bytes = bytes;
  trace_.bugReport = bugReport;
  cache_ = nullptr;
  state_ = nullptr;
  return std::move(trace_);
}

}  // namespace veranda::reachabilityCache::trace
