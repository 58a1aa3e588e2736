#include "SimRun.h"

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <utility>

#include "AnswerDelays.h"
#include "EventStream.h"
#include "RunClock.h"
#include "SimProvider.h"
#include "applianceDriver/SimulatedApplianceDriver.h"
#include "reachabilityCache/ApplianceDriverReachabilityChecker.h"
#include "reachabilityCache/ReachabilityCache.h"
#include "reachabilityCache/ReachabilityCacheOwner.h"
#include "reachabilityCache/ReachabilityCheckerGuard.h"

namespace veranda::reachabilityCache::sim {
namespace {

using applianceDriver::DiscoveredDevice;
using applianceDriver::SimulatedApplianceDriver;

const char* const LISTENER_ID = "reachability-sim";
constexpr std::size_t EVENTS_BEHIND = 256;
constexpr std::chrono::seconds DRIVER_CATCH_UP{1};

DiscoveredDevice discovered(const Device& device, bool online) {
  DiscoveredDevice result;
  result.endpointId = device.endpointId;
  result.entityId = device.entityId;
  result.adapterName = device.adapterName;
  result.friendlyName = device.entityId;
  result.isReachable = online;
  result.capabilities.insert(device.capabilities.begin(), device.capabilities.end());
  result.driverType = device.driverType;
  return result;
}

// Lets callbacks read the cache only while it is open, so that none does
// before the cache is fully made or once it is being destroyed.
class CacheGate {
 public:
  void open(ReachabilityCache* cache) {
    std::lock_guard<std::mutex> lock(mutex_);
    cache_ = cache;
  }
  // Returns once no callback is inside the cache.
  void close() { open(nullptr); }

  // Runs `query` on the cache if it is open; false otherwise.
  template <typename Query>
  bool with(Query&& query) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (cache_ == nullptr) {
      return false;
    }
    query(*cache_);
    return true;
  }

 private:
  std::mutex mutex_;
  ReachabilityCache* cache_ = nullptr;
};

// Hears each check that the cache starts through the guard: in a periodic
// cycle, right after the sweep.
class CheckWatcher : public ReachabilityCheckerGuard::Observer {
 public:
  explicit CheckWatcher(std::function<void()> starting) : starting_(std::move(starting)) {}

  void onCheckStarting() override { starting_(); }
  void onResultsArriving(const std::vector<ReachabilityCheckResult>& /*results*/) override {}
  void onResultsApplied(const std::vector<ReachabilityCheckResult>& /*results*/) override {}

 private:
  const std::function<void()> starting_;
};

tools::Answer answerOf(const ReachabilityCache& cache, const std::string& entityId) {
  if (cache.isEntityReachable(entityId)) {
    return tools::Answer::REACHABLE;
  }
  return cache.getEndpointsForEntity(entityId).empty() ? tools::Answer::ABSENT
                                                       : tools::Answer::UNREACHABLE;
}

// One run; the members are what a host would own.
class HomeRun {
 public:
  HomeRun(const Scenario& scenario, const RunSettings& settings)
      : scenario_(scenario),
        settings_(settings),
        clock_(settings.fast),
        timeline_(scenario, clock_, settings.timeline),
        provider_(scenario,
                  [this](std::size_t named, const std::vector<std::string>& unnamedEntities) {
                    timeline_.cycle(named);
                    sweepable_ = unnamedEntities;
                  }),
        delays_(scenario.latencyMinMs, scenario.latencyMaxMs, scenario.intervalSeconds,
                settings.seed) {
    for (const Device& device : scenario.devices) {
      devices_.emplace(device.endpointId, &device);
      online_[device.endpointId] = device.online;
      inHome_[device.endpointId] = device.present;
    }
  }

  RunReport run() {
    buildHome();
    clock_.start();
    timeline_.start(settings_.tracker);
    startCache();
    EventStream events(scenario_);
    if (clock_.fast()) {
      playInVirtualTime(events);
    } else {
      playInRealTime(events);
    }
    // Nothing runs any more once the clock stands: the table and the
    // timeline end at the same moment.
    clock_.freeze();
    RunReport report = collect();
    tearDown(report);
    return report;
  }

 private:
  void buildHome() {
    for (const Device& device : scenario_.devices) {
      if (device.present) {
        driver_.upsertDevice(discovered(device, device.online));
      }
    }
  }

  void startCache() {
    ReachabilityCacheOwner::Options options;
    if (settings_.tracker) {
      options.tracker.onChange = [this](const std::string& entityId, bool reachable) {
        timeline_.trackerChange(entityId, reachable);
      };
    }
    owner_ = std::make_unique<ReachabilityCacheOwner>(
        &provider_,
        ReachabilityCache::Config{scenario_.effectiveCacheSize(),
                                  std::chrono::seconds(scenario_.intervalSeconds),
                                  /*enablePeriodicUpdates=*/true,
                                  std::make_shared<ApplianceDriverReachabilityChecker>(driver_)},
        std::move(options));
    // After the tracker's: a sweep's "~" lines follow the tracker's.
    owner_->guard().addObserver(std::make_shared<CheckWatcher>([this] { onCheckStarting(); }));
    // Registered after the tracker: the cache then calls this listener first
    // (the newest first, with the standard library this is built with), so
    // that a notification's line comes before the change the tracker tells.
    owner_->cache().registerReachabilityListener(
        LISTENER_ID, [this](const std::string& endpointId, const std::string& entityId,
                            bool reachable) { onNotification(endpointId, entityId, reachable); });
    gate_.open(&owner_->cache());
  }

  // On the cache's worker, right after a cycle's sweep, which can only have
  // dropped endpoints that the provider did not name: their entities are
  // read again. The answer's delay is drawn here, where no other check can
  // start meanwhile.
  void onCheckStarting() {
    driver_.setAnswerLatency(std::chrono::milliseconds(delays_.next()));
    for (const std::string& entityId : sweepable_) {
      observe(entityId);
    }
  }

  void observe(const std::string& entityId) {
    tools::Answer answer = tools::Answer::ABSENT;
    if (gate_.with([&](ReachabilityCache& cache) { answer = answerOf(cache, entityId); })) {
      timeline_.observe(entityId, answer);
    }
  }

  // Runs on the driver's thread or the cache's worker.
  void onNotification(const std::string& endpointId, const std::string& entityId, bool reachable) {
    std::string adapter;
    bool entityReachable = reachable;
    gate_.with([&](ReachabilityCache& cache) {
      adapter = cache.getAdapterName(entityId, endpointId);
      entityReachable = cache.isEntityReachable(entityId);
    });
    const auto device = devices_.find(endpointId);
    if (adapter.empty() && device != devices_.end()) {
      adapter = device->second->adapterName;
    }
    timeline_.notification(endpointId, entityId, adapter, reachable, entityReachable);
  }

  // One event at a time, each once everything due before it has run, and
  // all it causes before the next.
  void playInVirtualTime(EventStream& events) {
    for (auto at = events.nextAtMs(); at; at = events.nextAtMs()) {
      clock_.waitUntil(*at);
      play(events.take());
      clock_.settle();
    }
    clock_.waitUntil(scenario_.durationMs);
  }

  // Each event at its time on the wall clock. A home that changes faster than
  // the driver delivers its events falls behind in time: after EVENTS_BEHIND
  // events without a pause the run waits for the driver, so that undelivered
  // events do not pile up in memory, and events still due when the duration
  // has passed are not played.
  void playInRealTime(EventStream& events) {
    std::size_t withoutPause = 0;
    for (auto at = events.nextAtMs(); at; at = events.nextAtMs()) {
      if (*at > clock_.nowMs()) {
        withoutPause = 0;
        clock_.waitUntil(*at);
      }
      play(events.take());
      if (++withoutPause % EVENTS_BEHIND == 0) {
        driver_.waitUntilIdle(DRIVER_CATCH_UP);
        if (clock_.nowMs() >= scenario_.durationMs) {
          return;  // behind at the end: what is still due is not played
        }
      }
    }
    clock_.waitUntil(scenario_.durationMs);
  }

  // Prints what the home or the host does, then does it.
  void play(const Event& event) {
    const Device& device = *devices_.at(event.endpointId);
    timeline_.action(event, device, outcome(event, device));
    switch (event.action) {
      case Action::OFFLINE:
      case Action::ONLINE:
        online_[device.endpointId] = event.action == Action::ONLINE;
        driver_.setReachable(device.endpointId, online_[device.endpointId]);
        break;
      case Action::REMOVE:
        provider_.setNamed(device.endpointId, false);
        driver_.removeDevice(device.endpointId);
        inHome_[device.endpointId] = false;
        break;
      case Action::ADD:
        driver_.upsertDevice(discovered(device, online_[device.endpointId]));
        provider_.setNamed(device.endpointId, true);
        inHome_[device.endpointId] = true;
        break;
      case Action::PUSH:
        push(device);
        break;
    }
  }

  // What the driver will make of the event, known before it happens.
  std::string outcome(const Event& event, const Device& device) {
    const bool online = event.action == Action::ONLINE;
    switch (event.action) {
      case Action::OFFLINE:
      case Action::ONLINE:
        if (!inHome_[device.endpointId]) {
          return "it is not in the home, nothing happens";
        }
        if (online_[device.endpointId] == online) {
          return online ? "already online, no event" : "already offline, no event";
        }
        return online ? "the driver publishes connectivity OK"
                      : "the driver publishes connectivity UNREACHABLE";
      case Action::PUSH:
        return "listeners are not told";
      case Action::REMOVE:
      case Action::ADD:
        break;
    }
    return "";
  }

  // Through the owner: its tracker, when it runs, tells the change that
  // listeners do not hear.
  void push(const Device& device) {
    const std::vector<CachedEndpoint> record{CachedEndpoint(device.endpointId, device.entityId,
                                                            device.adapterName, device.driverType,
                                                            capabilitySet(device))};
    owner_->updateEndpoints(record);
    observe(device.entityId);
    if (answerOf(owner_->cache(), device.entityId) == tools::Answer::ABSENT) {
      timeline_.remark(device.entityId, "was refused by the cache");
    }
  }

  RunReport collect() const {
    RunReport report;
    report.name = scenario_.name;
    report.entities = scenario_.entities;
    report.durationMs = scenario_.durationMs;
    report.intervalSeconds = scenario_.intervalSeconds;
    report.preferredAdapter = scenario_.preferredAdapter;
    for (const std::string& entity : scenario_.entities) {
      report.table.push_back(tableRow(entity));
    }
    return report;
  }

  TableRow tableRow(const std::string& entityId) const {
    TableRow row;
    row.entityId = entityId;
    const ReachabilityCache& cache = owner_->cache();
    const std::vector<EndpointInfo> endpoints = cache.getEndpointsForEntity(entityId);
    row.cached = !endpoints.empty();
    if (!row.cached) {
      return row;
    }
    row.reachable = cache.isEntityReachable(entityId);
    for (const EndpointInfo& endpoint : endpoints) {
      row.endpoints.emplace_back(endpoint.endpointId, endpoint.adapterName);
    }
    row.preferredEndpoint =
        cache.getPreferredEndpoint(entityId, scenario_.preferredAdapter).endpointId;
    return row;
  }

  // The clock stands, so nothing is under way: the owner cuts the cache off
  // from answers due later and stops the tracker, and only then does
  // recording end. The driver goes last, after the cache has cancelled its
  // subscription.
  void tearDown(RunReport& report) {
    owner_->close();
    timeline_.stop();
    report.cycleTimesMs = timeline_.cycleTimes();
    report.histories = timeline_.histories();
    report.notifications = timeline_.notificationCount();
    report.toldReachable = timeline_.toldReachableCount();
    gate_.close();
    owner_.reset();
    driver_.shutdown();
  }

  const Scenario& scenario_;
  const RunSettings settings_;
  RunClock clock_;  // first made, last gone: the process's clock runs again after the rest
  Timeline timeline_;
  std::unordered_map<std::string, const Device*> devices_;  // read-only once built
  std::unordered_map<std::string, bool> online_;            // the run loop's thread only
  std::unordered_map<std::string, bool> inHome_;            // the run loop's thread only
  SimulatedApplianceDriver driver_;
  SimProvider provider_;
  AnswerDelays delays_;                 // the cache's worker only
  std::vector<std::string> sweepable_;  // the cache's worker only
  CacheGate gate_;
  std::unique_ptr<ReachabilityCacheOwner> owner_;
};

}  // namespace

RunReport runScenario(const Scenario& scenario, const RunSettings& settings) {
  HomeRun run(scenario, settings);
  return run.run();
}

}  // namespace veranda::reachabilityCache::sim
