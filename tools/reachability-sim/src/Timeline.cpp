#include "Timeline.h"

#include <algorithm>
#include <cstdio>

#include "SafeText.h"

namespace veranda::reachabilityCache::sim {
namespace {

constexpr int kWidestColumn = 32;
const std::string kEntityPrefix = "orbt1.veyra.endpoint.";

int columnWidth(const std::vector<std::string>& values, int minimum) {
  auto widest = static_cast<std::size_t>(minimum);
  for (const std::string& value : values) {
    widest = std::max(widest, tools::terminalWidth(value));
  }
  return static_cast<int>(std::min<std::size_t>(widest, kWidestColumn));
}

// The text made safe for a terminal, padded to `width` characters.
std::string padded(const std::string& text, int width) {
  return tools::terminalPadded(text, static_cast<std::size_t>(width));
}

const char* actionText(Action action) {
  switch (action) {
    case Action::kOffline:
      return "goes offline";
    case Action::kOnline:
      return "comes back online";
    case Action::kRemove:
      return "leaves the home (the provider stops naming it, the driver forgets it)";
    case Action::kAdd:
      return "joins the home (the driver has it, the provider names it)";
    case Action::kPush:
      return "the host pushes its record with updateEndpoints";
  }
  return "";
}

// The entity id as the cache keeps it: without one leading prefix.
std::string normalised(const std::string& entityId) {
  const bool prefixed = entityId.compare(0, kEntityPrefix.size(), kEntityPrefix) == 0;
  return prefixed ? entityId.substr(kEntityPrefix.size()) : entityId;
}

}  // namespace

Timeline::Timeline(const Scenario& scenario, std::ostream* out)
    : out_(out), entities_(scenario.entities) {
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
    normalised_.push_back(normalised(entities_[i]));
    index_.emplace(normalised_.back(), i);
  }
  states_.assign(entities_.size(), {StateChange{0, EntityState::kAbsent}});
  lastRecordMs_.assign(entities_.size(), -1);
}

void Timeline::start() {
  start_ = Clock::now();
  if (out_ == nullptr) {
    return;
  }
  *out_ << "Timeline in seconds since the cache was created.  * the home or host acts  "
           ". a periodic cycle  ~ seen in the cache, not notified\n"
        << "   time  " << padded("entity", entityWidth_) << "  "
        << padded("endpoint", endpointWidth_) << "  " << padded("adapter", adapterWidth_)
        << "  notified     isEntityReachable\n";
}

int64_t Timeline::nowMs() const {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start_).count();
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

void Timeline::recordLocked(std::size_t entity, int64_t atMs, EntityState state) {
  if (entity == std::string::npos) {
    return;
  }
  lastRecordMs_[entity] = atMs;
  if (states_[entity].back().state != state) {
    states_[entity].push_back({atMs, state});
  }
}

void Timeline::notification(const std::string& endpointId, const std::string& entityId,
                            const std::string& adapterName, bool reachable, bool entityReachable) {
  const int64_t atMs = nowMs();
  const std::size_t entity = indexOf(entityId);
  std::lock_guard<std::mutex> lock(mutex_);
  if (stopped_) {
    return;
  }
  notifications_.push_back({atMs, entityId, endpointId, adapterName, reachable, entityReachable});
  recordLocked(entity, atMs, entityReachable ? EntityState::kReachable : EntityState::kUnreachable);
  if (out_ != nullptr) {
    *out_ << stamp(atMs) << padded(entityId, entityWidth_) << "  "
          << padded(endpointId, endpointWidth_) << "  " << padded(adapterName, adapterWidth_)
          << "  " << padded(reachable ? "reachable" : "unreachable", 11) << "  "
          << (entityReachable ? "yes" : "no") << '\n';
  }
}

void Timeline::cycle(std::size_t named) {
  const int64_t atMs = nowMs();
  std::lock_guard<std::mutex> lock(mutex_);
  if (stopped_) {
    return;
  }
  cycles_.push_back(atMs);
  if (out_ != nullptr) {
    *out_ << stamp(atMs) << ". periodic cycle: the provider names " << named << " endpoints\n";
  }
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

void Timeline::observe(const std::string& entityId, EntityState state) {
  const int64_t atMs = nowMs();
  const std::size_t entity = indexOf(entityId);
  std::lock_guard<std::mutex> lock(mutex_);
  if (!stopped_) {
    recordLocked(entity, atMs, state);
  }
}

void Timeline::noteCacheContents(const std::unordered_set<std::string>& cachedEntities,
                                 int64_t snapshotMs) {
  std::lock_guard<std::mutex> lock(mutex_);
  for (std::size_t i = 0; i < entities_.size() && !stopped_; ++i) {
    if (states_[i].back().state == EntityState::kAbsent || lastRecordMs_[i] >= snapshotMs ||
        cachedEntities.count(normalised_[i]) > 0) {
      continue;
    }
    recordLocked(i, snapshotMs, EntityState::kAbsent);
    if (out_ != nullptr) {
      *out_ << stamp(snapshotMs) << "~ " << tools::terminalText(entities_[i])
            << " is no longer in the cache (listeners are not told)\n";
    }
  }
}

void Timeline::stop() {
  const int64_t atMs = nowMs();
  std::lock_guard<std::mutex> lock(mutex_);
  if (!stopped_) {
    stopped_ = true;
    stoppedAtMs_ = atMs;
  }
}

std::vector<Notification> Timeline::notifications() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return notifications_;
}

std::vector<int64_t> Timeline::cycleTimes() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return cycles_;
}

std::vector<std::vector<StateChange>> Timeline::states() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return states_;
}

int64_t Timeline::stoppedAtMs() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return stoppedAtMs_;
}

}  // namespace veranda::reachabilityCache::sim
