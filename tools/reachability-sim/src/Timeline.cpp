#include "Timeline.h"

#include <algorithm>
#include <cstdio>

#include "SafeText.h"

namespace veranda::reachabilityCache::sim {
namespace {

constexpr int WIDEST_COLUMN = 32;
// The picture is 900 px wide: marks closer than half a pixel cannot be told apart.
constexpr int64_t MARKS_PER_ROW = 2000;
const std::string ENTITY_PREFIX = "orbt1.veyra.endpoint.";

int columnWidth(const std::vector<std::string>& values, int minimum) {
  auto widest = static_cast<std::size_t>(minimum);
  for (const std::string& value : values) {
    widest = std::max(widest, tools::terminalWidth(value));
  }
  return static_cast<int>(std::min<std::size_t>(widest, WIDEST_COLUMN));
}

// The text made safe for a terminal, padded to `width` characters.
std::string padded(const std::string& text, int width) {
  return tools::terminalPadded(text, static_cast<std::size_t>(width));
}

const char* actionText(Action action) {
  switch (action) {
    case Action::OFFLINE:
      return "goes offline";
    case Action::ONLINE:
      return "comes back online";
    case Action::REMOVE:
      return "leaves the home (the provider stops naming it, the driver forgets it)";
    case Action::ADD:
      return "joins the home (the driver has it, the provider names it)";
    case Action::PUSH:
      return "the host pushes its record with updateEndpoints";
  }
  return "";
}

// The entity id as the cache keeps it: without one leading prefix.
std::string normalised(const std::string& entityId) {
  const bool prefixed = entityId.compare(0, ENTITY_PREFIX.size(), ENTITY_PREFIX) == 0;
  return prefixed ? entityId.substr(ENTITY_PREFIX.size()) : entityId;
}

}  // namespace

std::size_t answerChanges(const EntityHistory& history) {
  std::size_t changes = 0;
  bool reachable = false;
  for (const AnswerChange& change : history.answers) {
    const bool now = change.answer == tools::Answer::REACHABLE;
    changes += now != reachable ? 1 : 0;
    reachable = now;
  }
  return changes;
}

int64_t reachableMs(const EntityHistory& history, int64_t endMs) {
  int64_t total = 0;
  const std::vector<AnswerChange>& answers = history.answers;
  for (std::size_t k = 0; k < answers.size(); ++k) {
    const int64_t untilMs = std::min(k + 1 < answers.size() ? answers[k + 1].atMs : endMs, endMs);
    if (answers[k].answer == tools::Answer::REACHABLE) {
      total += std::max<int64_t>(untilMs - answers[k].atMs, 0);
    }
  }
  return total;
}

Timeline::Timeline(const Scenario& scenario, const RunClock& clock, std::ostream* out)
    : clock_(clock),
      out_(out),
      entities_(scenario.entities),
      markSpacingMs_(std::max<int64_t>(scenario.durationMs / MARKS_PER_ROW, 1)) {
  std::vector<std::string> endpoints;
  std::vector<std::string> adapters;
  for (const Device& device : scenario.devices) {
    endpoints.push_back(device.endpointId);
    adapters.push_back(device.adapterName);
  }
  entityWidth_ = columnWidth(entities_, 6);
  endpointWidth_ = columnWidth(endpoints, 8);
  adapterWidth_ = columnWidth(adapters, 7);
  for (std::size_t i = 0; i < entities_.size(); ++i) {
    index_.emplace(normalised(entities_[i]), i);
  }
  histories_.resize(entities_.size());
}

void Timeline::start(bool tracker) {
  if (out_ == nullptr) {
    return;
  }
  *out_ << "Timeline in seconds since the cache was created.  * the home or host acts  "
           ". a periodic cycle  ~ seen in the cache, not notified\n";
  if (tracker) {
    *out_ << "Listeners are told per endpoint (notified, and what isEntityReachable answers "
             "then); the tracker tells each change of isEntityReachable per entity.\n";
  }
  *out_ << "   time  " << padded("entity", entityWidth_) << "  "
        << padded("endpoint", endpointWidth_) << "  " << padded("adapter", adapterWidth_)
        << "  notified     isEntityReachable" << (tracker ? "  tracker" : "") << '\n';
}

std::string Timeline::stamp(int64_t atMs) const {
  char text[32];
  std::snprintf(text, sizeof(text), "%7.3f  ", static_cast<double>(atMs) / 1000);
  return text;
}

std::size_t Timeline::indexOf(const std::string& entityId) const {
  const auto found = index_.find(normalised(entityId));
  return found == index_.end() ? std::string::npos : found->second;
}

// Changes at one moment count as one: the last of them stands.
bool Timeline::recordLocked(std::size_t entity, int64_t atMs, tools::Answer answer) {
  std::vector<AnswerChange>& answers = histories_[entity].answers;
  const tools::Answer before = answers.back().answer;
  if (answers.back().atMs == atMs) {
    if (answers.size() == 1) {
      answers.back().answer = answer;
      return before != answer;
    }
    answers.pop_back();
  }
  if (answers.back().answer != answer) {
    answers.push_back({atMs, answer});
  }
  return before != answer;
}

void Timeline::action(const Event& event, const Device& device, const std::string& outcome) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (stopped_ || out_ == nullptr) {
    return;
  }
  *out_ << stamp(event.atMs) << "* " << tools::terminalText(device.entityId) << " / "
        << tools::terminalText(device.endpointId) << " " << actionText(event.action)
        << (outcome.empty() ? "" : ": ") << tools::terminalText(outcome) << '\n';
}

void Timeline::notification(const std::string& endpointId, const std::string& entityId,
                            const std::string& adapterName, bool reachable, bool entityReachable) {
  const std::size_t entity = indexOf(entityId);
  std::lock_guard<std::mutex> lock(mutex_);
  if (stopped_) {
    return;
  }
  const int64_t atMs = clock_.nowMs();
  ++notifications_;
  toldReachable_ += reachable ? 1 : 0;
  if (entity != std::string::npos) {
    EntityHistory& history = histories_[entity];
    ++history.notifications;
    if (history.notifiedAtMs.empty() || atMs - history.notifiedAtMs.back() >= markSpacingMs_) {
      history.notifiedAtMs.push_back(atMs);
    }
    // Only a cached entity is announced.
    recordLocked(entity, atMs,
                 entityReachable ? tools::Answer::REACHABLE : tools::Answer::UNREACHABLE);
  }
  if (out_ != nullptr) {
    *out_ << stamp(atMs) << padded(entityId, entityWidth_) << "  "
          << padded(endpointId, endpointWidth_) << "  " << padded(adapterName, adapterWidth_)
          << "  " << padded(reachable ? "reachable" : "unreachable", 11) << "  "
          << (entityReachable ? "yes" : "no") << '\n';
  }
}

void Timeline::trackerChange(const std::string& entityId, bool reachable) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (stopped_) {
    return;
  }
  if (out_ != nullptr) {
    const int64_t atMs = clock_.nowMs();
    // Under "tracker", past the columns of a notification.
    const int blank = endpointWidth_ + adapterWidth_ + 11 + 17 + 4 * 2;
    *out_ << stamp(atMs) << padded(entityId, entityWidth_) << "  "
          << std::string(static_cast<std::size_t>(blank), ' ')
          << (reachable ? "reachable" : "unreachable") << '\n';
  }
}

void Timeline::cycle(std::size_t named) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (stopped_) {
    return;
  }
  const int64_t atMs = clock_.nowMs();
  cycles_.push_back(atMs);
  if (out_ != nullptr) {
    *out_ << stamp(atMs) << ". periodic cycle: the provider names " << named << " endpoints\n";
  }
}

void Timeline::remark(const std::string& entityId, const std::string& text) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!stopped_ && out_ != nullptr) {
    *out_ << stamp(clock_.nowMs()) << "~ " << tools::terminalText(entityId) << " "
          << tools::terminalText(text) << '\n';
  }
}

void Timeline::observe(const std::string& entityId, tools::Answer answer) {
  const std::size_t entity = indexOf(entityId);
  std::lock_guard<std::mutex> lock(mutex_);
  if (stopped_ || entity == std::string::npos) {
    return;
  }
  const int64_t atMs = clock_.nowMs();
  if (recordLocked(entity, atMs, answer) && out_ != nullptr) {
    *out_ << stamp(atMs) << "~ " << tools::terminalText(entities_[entity])
          << (answer == tools::Answer::ABSENT      ? " is no longer in the cache"
              : answer == tools::Answer::REACHABLE ? ": isEntityReachable now answers yes"
                                                   : ": isEntityReachable now answers no")
          << " (listeners are not told)\n";
  }
}

void Timeline::stop() {
  std::lock_guard<std::mutex> lock(mutex_);
  stopped_ = true;
}

std::vector<EntityHistory> Timeline::histories() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return histories_;
}

std::vector<int64_t> Timeline::cycleTimes() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return cycles_;
}

std::size_t Timeline::notificationCount() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return notifications_;
}

std::size_t Timeline::toldReachableCount() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return toldReachable_;
}

}  // namespace veranda::reachabilityCache::sim
