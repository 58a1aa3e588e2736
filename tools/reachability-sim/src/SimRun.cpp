#include "SimRun.h"

#include <algorithm>
#include <chrono>
#include <limits>
#include <memory>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <unordered_set>

#include "EventStream.h"
#include "SimProvider.h"
#include "applianceDriver/SimulatedApplianceDriver.h"
#include "reachabilityCache/ApplianceDriverReachabilityChecker.h"
#include "reachabilityCache/ReachabilityCache.h"

namespace veranda::reachabilityCache::sim {
namespace {

using applianceDriver::DiscoveredDevice;
using applianceDriver::SimulatedApplianceDriver;

const char* const kListenerId = "reachability-sim";
constexpr std::size_t kEventsBehind = 256;
constexpr std::chrono::seconds kDriverCatchUp{1};

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

// Lets listeners query the cache only while it is open, so that none does
// once the cache is being destroyed.
class CacheGate {
 public:
  void open(ReachabilityCache* cache) {
    std::lock_guard<std::mutex> lock(mutex_);
    cache_ = cache;
  }
  // Returns once no listener is inside the cache.
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

// One run; the members are what a host would own.
class HomeRun {
 public:
  HomeRun(const Scenario& scenario, const RunSettings& settings)
      : scenario_(scenario),
        settings_(settings),
        timeline_(scenario, settings.timeline),
        provider_(scenario, [this](std::size_t named) { timeline_.cycle(named); }) {
    for (const Device& device : scenario.devices) {
      devices_.emplace(device.endpointId, &device);
      online_[device.endpointId] = device.online;
    }
  }

  RunReport run() {
    buildHome();
    timeline_.start();
    startCache();
    playEvents();
    sample();
    timeline_.stop();
    RunReport report = collect();
    tearDown();
    return report;
  }

 private:
  void buildHome() {
    driver_.setRandomSeed(settings_.seed);
    driver_.setAnswerLatency(std::chrono::milliseconds(scenario_.latencyMinMs),
                             std::chrono::milliseconds(scenario_.latencyMaxMs));
    for (const Device& device : scenario_.devices) {
      if (device.present) {
        driver_.upsertDevice(discovered(device, device.online));
      }
    }
  }

  void startCache() {
    checker_ = std::make_shared<ApplianceDriverReachabilityChecker>(driver_);
    const ReachabilityCache::Config config{scenario_.effectiveCacheSize(),
                                           std::chrono::seconds(scenario_.intervalSeconds),
                                           /*enablePeriodicUpdates=*/true, checker_};
    cache_ = std::make_unique<ReachabilityCache>(&provider_, config);
    cache_->registerReachabilityListener(
        kListenerId, [this](const std::string& endpointId, const std::string& entityId,
                            bool reachable) { onNotification(endpointId, entityId, reachable); });
    gate_.open(cache_.get());
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

  // Applies each event at its time and looks at the cache every
  // sampleEveryMs, until the duration has passed. A home that changes faster
  // than the driver delivers its events falls behind in time: after
  // kEventsBehind events without a pause the run waits for the driver, so
  // that undelivered events do not pile up in memory, and events still due
  // when the duration has passed are not played.
  void playEvents() {
    EventStream events(scenario_);
    const int64_t end = scenario_.durationMs;
    int64_t nextSample = settings_.sampleEveryMs;
    std::size_t withoutPause = 0;
    for (;;) {
      const int64_t now = timeline_.nowMs();
      for (auto at = events.nextAtMs(); at && *at <= now; at = events.nextAtMs()) {
        apply(events.take());
        if (++withoutPause % kEventsBehind == 0) {
          driver_.waitUntilIdle(kDriverCatchUp);
          if (timeline_.nowMs() >= end) {
            return;  // behind at the end: what is still due is not played
          }
        }
      }
      if (now >= end) {
        return;
      }
      if (now >= nextSample) {
        sample();
        nextSample = now + settings_.sampleEveryMs;
      }
      const int64_t wake = std::min({events.nextAtMs().value_or(end), nextSample, end});
      withoutPause = wake > now ? 0 : withoutPause;
      std::this_thread::sleep_for(std::chrono::milliseconds(std::max<int64_t>(wake - now, 0)));
    }
  }

  void apply(const Event& event) {
    const Device& device = *devices_.at(event.endpointId);
    std::string outcome;
    switch (event.action) {
      case Action::kOffline:
      case Action::kOnline:
        outcome = setOnline(device, event.action == Action::kOnline);
        break;
      case Action::kRemove:
        provider_.setNamed(device.endpointId, false);
        driver_.removeDevice(device.endpointId);
        break;
      case Action::kAdd:
        driver_.upsertDevice(discovered(device, online_[device.endpointId]));
        provider_.setNamed(device.endpointId, true);
        break;
      case Action::kPush:
        outcome = push(device);
        break;
    }
    timeline_.action(event, device, outcome);
  }

  std::string setOnline(const Device& device, bool online) {
    const bool was = online_[device.endpointId];
    online_[device.endpointId] = online;
    if (!driver_.setReachable(device.endpointId, online)) {
      return "it is not in the home, nothing happens";
    }
    if (was == online) {
      return online ? "already online, no event" : "already offline, no event";
    }
    return online ? "the driver publishes connectivity OK"
                  : "the driver publishes connectivity UNREACHABLE";
  }

  std::string push(const Device& device) {
    cache_->updateEndpoints({CachedEndpoint(device.endpointId, device.entityId, device.adapterName,
                                            device.driverType, capabilitySet(device))});
    const bool cached = !cache_->getEndpointsForEntity(device.entityId).empty();
    const bool reachable = cached && cache_->isEntityReachable(device.entityId);
    timeline_.observe(device.entityId, !cached     ? EntityState::kAbsent
                                       : reachable ? EntityState::kReachable
                                                   : EntityState::kUnreachable);
    if (!cached) {
      return "the cache refused it";
    }
    return std::string("isEntityReachable now answers ") + (reachable ? "yes" : "no") +
           " (listeners are not told)";
  }

  void sample() {
    const int64_t atMs = timeline_.nowMs();
    std::unordered_set<std::string> cached;
    for (const auto& entity : cache_->getReachableEndpointsMap()) {
      cached.insert(entity.first);
    }
    timeline_.noteCacheContents(cached, atMs);
  }

  RunReport collect() const {
    RunReport report;
    report.name = scenario_.name;
    report.entities = scenario_.entities;
    report.durationMs = scenario_.durationMs;
    report.intervalSeconds = scenario_.intervalSeconds;
    report.preferredAdapter = scenario_.preferredAdapter;
    report.notifications = timeline_.notifications();
    report.cycleTimesMs = timeline_.cycleTimes();
    report.states = timeline_.states();
    for (const std::string& entity : scenario_.entities) {
      report.table.push_back(tableRow(entity));
    }
    return report;
  }

  TableRow tableRow(const std::string& entityId) const {
    TableRow row;
    row.entityId = entityId;
    const std::vector<EndpointInfo> endpoints = cache_->getEndpointsForEntity(entityId);
    row.cached = !endpoints.empty();
    if (!row.cached) {
      return row;
    }
    row.reachable = cache_->isEntityReachable(entityId);
    for (const EndpointInfo& endpoint : endpoints) {
      row.endpoints.emplace_back(endpoint.endpointId, endpoint.adapterName);
    }
    row.preferredEndpoint =
        cache_->getPreferredEndpoint(entityId, scenario_.preferredAdapter).endpointId;
    return row;
  }

  // No driver answer may reach the cache once it is gone: stop the driver's
  // pending answers and events first, then keep listeners out of the cache,
  // then destroy it.
  void tearDown() {
    driver_.shutdown();
    gate_.close();
    cache_.reset();
    checker_.reset();
  }

  const Scenario& scenario_;
  const RunSettings settings_;
  Timeline timeline_;
  std::unordered_map<std::string, const Device*> devices_;  // read-only once built
  std::unordered_map<std::string, bool> online_;            // the run loop's thread only
  SimulatedApplianceDriver driver_;
  SimProvider provider_;
  std::shared_ptr<ApplianceDriverReachabilityChecker> checker_;
  CacheGate gate_;
  std::unique_ptr<ReachabilityCache> cache_;
};

}  // namespace

RunReport runScenario(const Scenario& scenario, const RunSettings& settings) {
  HomeRun run(scenario, settings);
  return run.run();
}

}  // namespace veranda::reachabilityCache::sim
