#include "applianceDriver/SimulatedApplianceDriver.h"

#include <algorithm>
#include <condition_variable>
#include <map>
#include <random>
#include <utility>

#include "scheduling/DelayedTaskQueue.h"
#include "sync/Mutex.h"

namespace veranda::applianceDriver {
namespace {

using reachabilityCache::Mutex;
using reachabilityCache::MutexLock;
using reachabilityCache::RelockableMutexLock;
using DevicesCallback = IUnifiedApplianceDriver::DevicesCallback;
using StateChangeCallback = IUnifiedApplianceDriver::StateChangeCallback;

constexpr const char* ENDPOINT_HEALTH_NAMESPACE = "Veyra.EndpointHealth";
constexpr const char* CONNECTIVITY_PROPERTY = "connectivity";

StateChangeEvent connectivityEvent(const std::string& endpointId, bool reachable, bool json) {
  std::string value = reachable ? "OK" : "UNREACHABLE";
  if (json) {
    value = "\"" + value + "\"";
  }
  return StateChangeEvent{endpointId, ENDPOINT_HEALTH_NAMESPACE, ENDPOINT_HEALTH_NAMESPACE,
                          CONNECTIVITY_PROPERTY, std::move(value)};
}

}  // namespace

// The home, the subscriptions and the deliveries. Answers and events are
// tasks of one delayed-task queue: events go ahead of every answer, in the
// order published; answers follow by due time. Each task holds the engine, so
// that a thread left to finish a callback on its own (the driver shut down or
// destroyed from inside a callback) still has it.
class SimulatedApplianceDriver::Engine : public std::enable_shared_from_this<Engine> {
 public:
  void upsertDevice(DiscoveredDevice device) {
    MutexLock lock(mutex_);
    auto found = home_.find(device.endpointId);
    if (found == home_.end()) {
      std::string endpointId = device.endpointId;
      home_.emplace(std::move(endpointId), std::move(device));
      return;
    }
    const bool changed = found->second.isReachable != device.isReachable;
    found->second = std::move(device);
    if (changed) {
      announceLocked(found->second);
    }
  }

  bool removeDevice(const std::string& endpointId) {
    MutexLock lock(mutex_);
    return home_.erase(endpointId) > 0;
  }

  bool setReachable(const std::string& endpointId, bool reachable) {
    MutexLock lock(mutex_);
    auto found = home_.find(endpointId);
    if (found == home_.end()) {
      return false;
    }
    if (found->second.isReachable != reachable) {
      found->second.isReachable = reachable;
      announceLocked(found->second);
    }
    return true;
  }

  std::vector<DiscoveredDevice> devices() const {
    MutexLock lock(mutex_);
    return snapshotLocked();
  }

  void publishStateChange(StateChangeEvent event) {
    MutexLock lock(mutex_);
    queueEventLocked(std::move(event));
  }

  void setAnswerLatency(std::chrono::milliseconds minimum, std::chrono::milliseconds maximum) {
    minimum = std::max(minimum, std::chrono::milliseconds::zero());
    maximum = std::max(maximum, std::chrono::milliseconds::zero());
    MutexLock lock(mutex_);
    latencyMinimum_ = std::min(minimum, maximum);
    latencyMaximum_ = std::max(minimum, maximum);
  }

  void setRandomSeed(uint32_t seed) {
    MutexLock lock(mutex_);
    random_.seed(seed);
  }

  void setHoldAnswers(bool hold) {
    MutexLock lock(mutex_);
    holdAnswers_ = hold;
  }

  std::size_t releaseHeldAnswers() {
    MutexLock lock(mutex_);
    const std::size_t released = held_.size();
    for (DevicesCallback& onDevices : held_) {
      queueAnswerLocked(std::move(onDevices), std::chrono::milliseconds::zero());
    }
    held_.clear();
    return released;
  }

  void setRefuseRequests(bool refuse) {
    MutexLock lock(mutex_);
    refuseRequests_ = refuse;
  }

  void setRefuseSubscriptions(bool refuse) {
    MutexLock lock(mutex_);
    refuseSubscriptions_ = refuse;
  }

  void setRefuseUnsubscriptions(bool refuse) {
    MutexLock lock(mutex_);
    refuseUnsubscriptions_ = refuse;
  }

  void setJsonConnectivityValues(bool json) {
    MutexLock lock(mutex_);
    jsonConnectivityValues_ = json;
  }

  bool waitUntilIdle(std::chrono::milliseconds timeout) const {
    if (queue_.onWorker()) {
      return false;  // the driver's thread cannot wait for itself
    }
    MutexLock lock(mutex_);
    return idle_.wait_for(mutex_, timeout, [this]() RC_REQUIRES(mutex_) {
      return queuedAnswers_ == 0 && queuedEvents_ == 0 && !deliveringAnswer_ && !deliveringEvent_;
    });
  }

  // Refuses later work, drops what is queued and waits for a running
  // callback, unless called on the driver's thread. Safe to call repeatedly
  // and from several threads.
  void shutdown() {
    std::vector<Task> dropped;  // both destroyed after the lock is released
    std::vector<DevicesCallback> droppedHeld;
    {
      MutexLock lock(mutex_);
      shutDown_ = true;
      dropped = queue_.takePending();
      droppedHeld.swap(held_);
      queuedAnswers_ = 0;
      queuedEvents_ = 0;
      idle_.notify_all();
    }
    dropped.clear();
    droppedHeld.clear();
    queue_.stop();
  }

  std::size_t pendingAnswers() const {
    MutexLock lock(mutex_);
    return queuedAnswers_ + held_.size() + (deliveringAnswer_ ? 1 : 0);
  }

  uint64_t acceptedRequests() const {
    MutexLock lock(mutex_);
    return acceptedRequests_;
  }

  std::size_t subscriptionCount() const {
    MutexLock lock(mutex_);
    return subscriptions_.size();
  }

  bool getReachableDevices(DevicesCallback onDevices) {
    MutexLock lock(mutex_);
    if (shutDown_ || refuseRequests_ || !onDevices) {
      return false;
    }
    ++acceptedRequests_;
    if (holdAnswers_) {
      held_.push_back(std::move(onDevices));
      return true;
    }
    std::uniform_int_distribution<int64_t> draw(latencyMinimum_.count(), latencyMaximum_.count());
    queueAnswerLocked(std::move(onDevices), std::chrono::milliseconds(draw(random_)));
    return true;
  }

  bool subscribe(const std::string& subscriptionId, StateChangeCallback onStateChange) {
    MutexLock lock(mutex_);
    if (shutDown_ || refuseSubscriptions_ || !onStateChange ||
        subscriptions_.count(subscriptionId) > 0) {
      return false;
    }
    subscriptions_.emplace(subscriptionId,
                           Subscription{nextToken_++, std::make_shared<const StateChangeCallback>(
                                                          std::move(onStateChange))});
    return true;
  }

  bool unsubscribe(const std::string& subscriptionId) {
    std::shared_ptr<const StateChangeCallback> dropped;  // destroyed after the lock is released
    MutexLock lock(mutex_);
    auto found = subscriptions_.find(subscriptionId);
    if (refuseUnsubscriptions_ || found == subscriptions_.end()) {
      return false;
    }
    const uint64_t token = found->second.token;
    dropped = std::move(found->second.callback);
    subscriptions_.erase(found);
    if (!queue_.onWorker()) {
      idle_.wait(mutex_, [this, token]() RC_REQUIRES(mutex_) { return activeToken_ != token; });
    }
    return true;
  }

 private:
  using Task = scheduling::DelayedTaskQueue::Task;

  struct Subscription {
    uint64_t token;  // tells a subscription from a later one under the same id
    std::shared_ptr<const StateChangeCallback> callback;
  };

  std::vector<DiscoveredDevice> snapshotLocked() const RC_REQUIRES(mutex_) {
    std::vector<DiscoveredDevice> snapshot;
    snapshot.reserve(home_.size());
    for (const auto& entry : home_) {
      snapshot.push_back(entry.second);
    }
    return snapshot;
  }

  void queueAnswerLocked(DevicesCallback onDevices, std::chrono::milliseconds delay)
      RC_REQUIRES(mutex_) {
    queue_.post([self = shared_from_this(),
                 onDevices = std::move(onDevices)] { self->deliverAnswer(onDevices); },
                delay);
    ++queuedAnswers_;
  }

  void announceLocked(const DiscoveredDevice& device) RC_REQUIRES(mutex_) {
    queueEventLocked(
        connectivityEvent(device.endpointId, device.isReachable, jsonConnectivityValues_));
  }

  void queueEventLocked(StateChangeEvent event) RC_REQUIRES(mutex_) {
    if (shutDown_) {
      return;
    }
    queue_.postUrgent(
        [self = shared_from_this(), event = std::move(event)] { self->deliverEvent(event); });
    ++queuedEvents_;
  }

  void deliverAnswer(const DevicesCallback& callback) {
    RelockableMutexLock lock(mutex_);
    if (shutDown_) {
      return;  // taken by the thread just before the shutdown dropped the rest
    }
    --queuedAnswers_;
    std::vector<DiscoveredDevice> snapshot = snapshotLocked();
    deliveringAnswer_ = true;
    lock.unlock();
    callback(snapshot);
    lock.lock();
    deliveringAnswer_ = false;
    idle_.notify_all();
  }

  // Delivers the event to every subscription that exists when its turn
  // comes, in subscription id order.
  void deliverEvent(const StateChangeEvent& event) {
    RelockableMutexLock lock(mutex_);
    if (shutDown_) {
      return;
    }
    --queuedEvents_;
    std::vector<std::pair<std::string, uint64_t>> targets;
    for (const auto& entry : subscriptions_) {
      targets.emplace_back(entry.first, entry.second.token);
    }
    deliveringEvent_ = true;
    for (const auto& target : targets) {
      auto found = subscriptions_.find(target.first);
      if (shutDown_) {
        break;
      }
      if (found == subscriptions_.end() || found->second.token != target.second) {
        continue;
      }
      std::shared_ptr<const StateChangeCallback> callback = found->second.callback;
      activeToken_ = target.second;
      lock.unlock();
      (*callback)(event);
      callback.reset();
      lock.lock();
      activeToken_ = 0;
      idle_.notify_all();
    }
    deliveringEvent_ = false;
    idle_.notify_all();
  }

  // Taken before the queue's own mutex: answers and events are posted under it.
  mutable Mutex mutex_;
  mutable std::condition_variable_any idle_;  // callers wait for deliveries to end

  std::map<std::string, DiscoveredDevice> home_ RC_GUARDED_BY(mutex_);
  std::map<std::string, Subscription> subscriptions_ RC_GUARDED_BY(mutex_);

  std::chrono::milliseconds latencyMinimum_ RC_GUARDED_BY(mutex_) =
      std::chrono::milliseconds::zero();
  std::chrono::milliseconds latencyMaximum_ RC_GUARDED_BY(mutex_) =
      std::chrono::milliseconds::zero();
  std::mt19937 random_ RC_GUARDED_BY(mutex_);
  bool refuseRequests_ RC_GUARDED_BY(mutex_) = false;
  bool refuseSubscriptions_ RC_GUARDED_BY(mutex_) = false;
  bool refuseUnsubscriptions_ RC_GUARDED_BY(mutex_) = false;
  bool jsonConnectivityValues_ RC_GUARDED_BY(mutex_) = false;
  bool holdAnswers_ RC_GUARDED_BY(mutex_) = false;
  // Accepted while holding, in that order.
  std::vector<DevicesCallback> held_ RC_GUARDED_BY(mutex_);

  bool shutDown_ RC_GUARDED_BY(mutex_) = false;
  bool deliveringAnswer_ RC_GUARDED_BY(mutex_) = false;
  bool deliveringEvent_ RC_GUARDED_BY(mutex_) = false;
  // The subscription whose callback runs now; 0 for none.
  uint64_t activeToken_ RC_GUARDED_BY(mutex_) = 0;
  uint64_t nextToken_ RC_GUARDED_BY(mutex_) = 1;
  std::size_t queuedAnswers_ RC_GUARDED_BY(mutex_) = 0;
  std::size_t queuedEvents_ RC_GUARDED_BY(mutex_) = 0;
  uint64_t acceptedRequests_ RC_GUARDED_BY(mutex_) = 0;

  // Declared last: destroyed first, it stops the thread before the rest goes.
  scheduling::DelayedTaskQueue queue_;
};

SimulatedApplianceDriver::SimulatedApplianceDriver() : engine_(std::make_shared<Engine>()) {}

// Queued tasks hold the engine; dropping them lets it go.
SimulatedApplianceDriver::~SimulatedApplianceDriver() { engine_->shutdown(); }

void SimulatedApplianceDriver::upsertDevice(DiscoveredDevice device) {
  engine_->upsertDevice(std::move(device));
}

bool SimulatedApplianceDriver::removeDevice(const std::string& endpointId) {
  return engine_->removeDevice(endpointId);
}

bool SimulatedApplianceDriver::setReachable(const std::string& endpointId, bool reachable) {
  return engine_->setReachable(endpointId, reachable);
}

std::vector<DiscoveredDevice> SimulatedApplianceDriver::devices() const {
  return engine_->devices();
}

void SimulatedApplianceDriver::publishStateChange(StateChangeEvent event) {
  engine_->publishStateChange(std::move(event));
}

void SimulatedApplianceDriver::setAnswerLatency(std::chrono::milliseconds minimum,
                                                std::chrono::milliseconds maximum) {
  engine_->setAnswerLatency(minimum, maximum);
}

void SimulatedApplianceDriver::setRandomSeed(uint32_t seed) { engine_->setRandomSeed(seed); }

void SimulatedApplianceDriver::setHoldAnswers(bool hold) { engine_->setHoldAnswers(hold); }

std::size_t SimulatedApplianceDriver::releaseHeldAnswers() { return engine_->releaseHeldAnswers(); }

void SimulatedApplianceDriver::setRefuseRequests(bool refuse) {
  engine_->setRefuseRequests(refuse);
}

void SimulatedApplianceDriver::setRefuseSubscriptions(bool refuse) {
  engine_->setRefuseSubscriptions(refuse);
}

void SimulatedApplianceDriver::setRefuseUnsubscriptions(bool refuse) {
  engine_->setRefuseUnsubscriptions(refuse);
}

void SimulatedApplianceDriver::setJsonConnectivityValues(bool json) {
  engine_->setJsonConnectivityValues(json);
}

bool SimulatedApplianceDriver::waitUntilIdle(std::chrono::milliseconds timeout) const {
  return engine_->waitUntilIdle(timeout);
}

void SimulatedApplianceDriver::shutdown() { engine_->shutdown(); }

std::size_t SimulatedApplianceDriver::pendingAnswers() const { return engine_->pendingAnswers(); }

uint64_t SimulatedApplianceDriver::acceptedRequests() const { return engine_->acceptedRequests(); }

std::size_t SimulatedApplianceDriver::subscriptionCount() const {
  return engine_->subscriptionCount();
}

bool SimulatedApplianceDriver::getReachableDevices(const std::string& /*requestId*/,
                                                   DevicesCallback onDevices) {
  return engine_->getReachableDevices(std::move(onDevices));
}

bool SimulatedApplianceDriver::subscribeStateChanges(
    const std::vector<std::string>& /*endpointIds*/, const std::string& subscriptionId,
    StateChangeCallback onStateChange, SubscriptionErrorCallback /*onSubscriptionError*/) {
  return engine_->subscribe(subscriptionId, std::move(onStateChange));
}

bool SimulatedApplianceDriver::unsubscribeStateChanges(const std::string& subscriptionId) {
  return engine_->unsubscribe(subscriptionId);
}

SimulatedApplianceDriver& getSimulatedApplianceDriver() {
  static SimulatedApplianceDriver driver;
  return driver;
}

}  // namespace veranda::applianceDriver
