#include "applianceDriver/SimulatedApplianceDriver.h"

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <random>
#include <thread>
#include <utility>

namespace veranda::applianceDriver {
namespace {

using Clock = std::chrono::steady_clock;
using DevicesCallback = std::function<void(const std::vector<DiscoveredDevice>&)>;
using StateCallback = std::function<void(const StateChangeEvent&)>;

constexpr const char* kEndpointHealthNamespace = "Veyra.EndpointHealth";
constexpr const char* kConnectivityProperty = "connectivity";

StateChangeEvent connectivityEvent(const std::string& endpointId, bool reachable, bool json) {
  std::string value = reachable ? "OK" : "UNREACHABLE";
  if (json) {
    value = "\"" + value + "\"";
  }
  return StateChangeEvent{endpointId, kEndpointHealthNamespace, kEndpointHealthNamespace,
                          kConnectivityProperty, std::move(value)};
}

// The home, the queues and the dispatcher's loop. Shared by the driver and its
// dispatcher thread, so that a thread left to finish a callback on its own
// (the driver shut down or destroyed from inside a callback) still has it.
class Core {
 public:
  // The dispatcher thread's body: delivers events as soon as possible and
  // answers once due, one at a time, until shutdown.
  void dispatch() {
    std::unique_lock<std::mutex> lock(mutex_);
    dispatcherId_ = std::this_thread::get_id();
    while (!shutDown_) {
      if (!events_.empty()) {
        deliverEvent(lock);
        continue;
      }
      if (answers_.empty()) {
        wake_.wait(lock);
        continue;
      }
      // A copy: the wait reads it again after the answer may have been dropped.
      const Clock::time_point due = answers_.begin()->first.first;
      if (due <= Clock::now()) {
        deliverAnswer(lock);
      } else {
        wake_.wait_until(lock, due);
      }
    }
  }

  void upsertDevice(DiscoveredDevice device) {
    std::lock_guard<std::mutex> lock(mutex_);
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
    std::lock_guard<std::mutex> lock(mutex_);
    return home_.erase(endpointId) > 0;
  }

  bool setReachable(const std::string& endpointId, bool reachable) {
    std::lock_guard<std::mutex> lock(mutex_);
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
    std::lock_guard<std::mutex> lock(mutex_);
    return snapshotLocked();
  }

  void publishStateChange(StateChangeEvent event) {
    std::lock_guard<std::mutex> lock(mutex_);
    queueEventLocked(std::move(event));
  }

  void setAnswerLatency(std::chrono::milliseconds minimum, std::chrono::milliseconds maximum) {
    minimum = std::max(minimum, std::chrono::milliseconds::zero());
    maximum = std::max(maximum, std::chrono::milliseconds::zero());
    std::lock_guard<std::mutex> lock(mutex_);
    latencyMinimum_ = std::min(minimum, maximum);
    latencyMaximum_ = std::max(minimum, maximum);
  }

  void setRandomSeed(uint32_t seed) {
    std::lock_guard<std::mutex> lock(mutex_);
    random_.seed(seed);
  }

  void setRefuseRequests(bool refuse) {
    std::lock_guard<std::mutex> lock(mutex_);
    refuseRequests_ = refuse;
  }

  void setRefuseSubscriptions(bool refuse) {
    std::lock_guard<std::mutex> lock(mutex_);
    refuseSubscriptions_ = refuse;
  }

  void setRefuseUnsubscriptions(bool refuse) {
    std::lock_guard<std::mutex> lock(mutex_);
    refuseUnsubscriptions_ = refuse;
  }

  void setJsonConnectivityValues(bool json) {
    std::lock_guard<std::mutex> lock(mutex_);
    jsonConnectivityValues_ = json;
  }

  bool waitUntilIdle(std::chrono::milliseconds timeout) const {
    std::unique_lock<std::mutex> lock(mutex_);
    if (onDispatcherLocked()) {
      return false;  // the dispatcher cannot wait for itself
    }
    return idle_.wait_for(lock, timeout, [this] {
      return answers_.empty() && events_.empty() && !deliveringAnswer_ && !deliveringEvent_;
    });
  }

  // Refuses later work, drops what is queued and waits for a running
  // callback (unless on the dispatcher). Stopping the thread is the caller's.
  void shutdown() {
    Answers droppedAnswers;
    std::deque<StateChangeEvent> droppedEvents;
    std::unique_lock<std::mutex> lock(mutex_);
    shutDown_ = true;
    droppedAnswers.swap(answers_);
    droppedEvents.swap(events_);
    wake_.notify_all();
    idle_.notify_all();
    if (!onDispatcherLocked()) {
      idle_.wait(lock, [this] { return !deliveringAnswer_ && !deliveringEvent_; });
    }
    lock.unlock();  // the dropped callbacks are destroyed outside the lock
  }

  std::size_t pendingAnswers() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return answers_.size() + (deliveringAnswer_ ? 1 : 0);
  }

  uint64_t acceptedRequests() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return acceptedRequests_;
  }

  std::size_t subscriptionCount() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return subscriptions_.size();
  }

  bool getReachableDevices(DevicesCallback onDevices) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (shutDown_ || refuseRequests_ || !onDevices) {
      return false;
    }
    std::uniform_int_distribution<int64_t> draw(latencyMinimum_.count(), latencyMaximum_.count());
    const Clock::time_point due = Clock::now() + std::chrono::milliseconds(draw(random_));
    answers_.emplace(Key{due, nextSequence_++}, std::move(onDevices));
    ++acceptedRequests_;
    wake_.notify_one();
    return true;
  }

  bool subscribe(const std::string& subscriptionId, StateCallback onStateChange) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (shutDown_ || refuseSubscriptions_ || !onStateChange ||
        subscriptions_.count(subscriptionId) > 0) {
      return false;
    }
    subscriptions_.emplace(subscriptionId,
                           Subscription{nextToken_++, std::make_shared<const StateCallback>(
                                                          std::move(onStateChange))});
    return true;
  }

  bool unsubscribe(const std::string& subscriptionId) {
    std::shared_ptr<const StateCallback> dropped;  // destroyed after the lock is released
    std::unique_lock<std::mutex> lock(mutex_);
    auto found = subscriptions_.find(subscriptionId);
    if (refuseUnsubscriptions_ || found == subscriptions_.end()) {
      return false;
    }
    const uint64_t token = found->second.token;
    dropped = std::move(found->second.callback);
    subscriptions_.erase(found);
    if (!onDispatcherLocked()) {
      idle_.wait(lock, [this, token] { return activeToken_ != token; });
    }
    return true;
  }

 private:
  using Key = std::pair<Clock::time_point, uint64_t>;  // due time, acceptance order
  using Answers = std::map<Key, DevicesCallback>;

  struct Subscription {
    uint64_t token;  // tells a subscription from a later one under the same id
    std::shared_ptr<const StateCallback> callback;
  };

  bool onDispatcherLocked() const { return dispatcherId_ == std::this_thread::get_id(); }

  std::vector<DiscoveredDevice> snapshotLocked() const {
    std::vector<DiscoveredDevice> snapshot;
    snapshot.reserve(home_.size());
    for (const auto& entry : home_) {
      snapshot.push_back(entry.second);
    }
    return snapshot;
  }

  void announceLocked(const DiscoveredDevice& device) {
    queueEventLocked(
        connectivityEvent(device.endpointId, device.isReachable, jsonConnectivityValues_));
  }

  void queueEventLocked(StateChangeEvent event) {
    if (shutDown_) {
      return;
    }
    events_.push_back(std::move(event));
    wake_.notify_one();
  }

  void deliverAnswer(std::unique_lock<std::mutex>& lock) {
    DevicesCallback callback = std::move(answers_.begin()->second);
    answers_.erase(answers_.begin());
    std::vector<DiscoveredDevice> snapshot = snapshotLocked();
    deliveringAnswer_ = true;
    lock.unlock();
    callback(snapshot);
    callback = nullptr;
    lock.lock();
    deliveringAnswer_ = false;
    idle_.notify_all();
  }

  // Delivers the oldest event to every subscription that exists when its turn
  // comes, in subscription id order.
  void deliverEvent(std::unique_lock<std::mutex>& lock) {
    const StateChangeEvent event = std::move(events_.front());
    events_.pop_front();
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
      std::shared_ptr<const StateCallback> callback = found->second.callback;
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

  mutable std::mutex mutex_;
  std::condition_variable wake_;          // the dispatcher waits for work
  mutable std::condition_variable idle_;  // callers wait for deliveries to end

  std::map<std::string, DiscoveredDevice> home_;
  Answers answers_;
  std::deque<StateChangeEvent> events_;
  std::map<std::string, Subscription> subscriptions_;

  std::chrono::milliseconds latencyMinimum_{0};
  std::chrono::milliseconds latencyMaximum_{0};
  std::mt19937 random_;
  bool refuseRequests_ = false;
  bool refuseSubscriptions_ = false;
  bool refuseUnsubscriptions_ = false;
  bool jsonConnectivityValues_ = false;

  bool shutDown_ = false;
  bool deliveringAnswer_ = false;
  bool deliveringEvent_ = false;
  uint64_t activeToken_ = 0;  // subscription whose callback runs now; 0 for none
  uint64_t nextToken_ = 1;
  uint64_t nextSequence_ = 0;
  uint64_t acceptedRequests_ = 0;
  std::thread::id dispatcherId_;
};

}  // namespace

// Owns the dispatcher thread; the thread shares the core.
class SimulatedApplianceDriver::Engine {
 public:
  Engine() : core_(std::make_shared<Core>()) {
    thread_ = std::thread([core = core_] { core->dispatch(); });
  }

  ~Engine() { shutdown(); }

  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;

  Core& core() const { return *core_; }

  // Stops the core, then joins the thread, or lets it finish on its own when
  // called on it. Safe to call repeatedly and from several threads.
  void shutdown() {
    core_->shutdown();
    std::thread thread;
    {
      std::lock_guard<std::mutex> lock(threadMutex_);
      thread.swap(thread_);
    }
    if (!thread.joinable()) {
      return;
    }
    if (thread.get_id() == std::this_thread::get_id()) {
      thread.detach();
    } else {
      thread.join();
    }
  }

 private:
  const std::shared_ptr<Core> core_;
  std::mutex threadMutex_;
  std::thread thread_;
};

SimulatedApplianceDriver::SimulatedApplianceDriver() : engine_(std::make_unique<Engine>()) {}

SimulatedApplianceDriver::~SimulatedApplianceDriver() = default;

void SimulatedApplianceDriver::upsertDevice(DiscoveredDevice device) {
  engine_->core().upsertDevice(std::move(device));
}

bool SimulatedApplianceDriver::removeDevice(const std::string& endpointId) {
  return engine_->core().removeDevice(endpointId);
}

bool SimulatedApplianceDriver::setReachable(const std::string& endpointId, bool reachable) {
  return engine_->core().setReachable(endpointId, reachable);
}

std::vector<DiscoveredDevice> SimulatedApplianceDriver::devices() const {
  return engine_->core().devices();
}

void SimulatedApplianceDriver::publishStateChange(StateChangeEvent event) {
  engine_->core().publishStateChange(std::move(event));
}

void SimulatedApplianceDriver::setAnswerLatency(std::chrono::milliseconds minimum,
                                                std::chrono::milliseconds maximum) {
  engine_->core().setAnswerLatency(minimum, maximum);
}

void SimulatedApplianceDriver::setRandomSeed(uint32_t seed) { engine_->core().setRandomSeed(seed); }

void SimulatedApplianceDriver::setRefuseRequests(bool refuse) {
  engine_->core().setRefuseRequests(refuse);
}

void SimulatedApplianceDriver::setRefuseSubscriptions(bool refuse) {
  engine_->core().setRefuseSubscriptions(refuse);
}

void SimulatedApplianceDriver::setRefuseUnsubscriptions(bool refuse) {
  engine_->core().setRefuseUnsubscriptions(refuse);
}

void SimulatedApplianceDriver::setJsonConnectivityValues(bool json) {
  engine_->core().setJsonConnectivityValues(json);
}

bool SimulatedApplianceDriver::waitUntilIdle(std::chrono::milliseconds timeout) const {
  return engine_->core().waitUntilIdle(timeout);
}

void SimulatedApplianceDriver::shutdown() { engine_->shutdown(); }

std::size_t SimulatedApplianceDriver::pendingAnswers() const {
  return engine_->core().pendingAnswers();
}

uint64_t SimulatedApplianceDriver::acceptedRequests() const {
  return engine_->core().acceptedRequests();
}

std::size_t SimulatedApplianceDriver::subscriptionCount() const {
  return engine_->core().subscriptionCount();
}

bool SimulatedApplianceDriver::getReachableDevices(const std::string& /*requestId*/,
                                                   DevicesCallback onDevices) {
  return engine_->core().getReachableDevices(std::move(onDevices));
}

bool SimulatedApplianceDriver::subscribeStateChanges(
    const std::vector<std::string>& /*endpointIds*/, const std::string& subscriptionId,
    StateCallback onStateChange, std::function<void(const std::string&)> /*onSubscriptionError*/) {
  return engine_->core().subscribe(subscriptionId, std::move(onStateChange));
}

bool SimulatedApplianceDriver::unsubscribeStateChanges(const std::string& subscriptionId) {
  return engine_->core().unsubscribe(subscriptionId);
}

SimulatedApplianceDriver& getSimulatedApplianceDriver() {
  static SimulatedApplianceDriver driver;
  return driver;
}

}  // namespace veranda::applianceDriver
