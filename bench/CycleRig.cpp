#include "CycleRig.h"

#include <ctime>

#include <climits>
#include <utility>

#include "BenchData.h"
#include "reachabilityCache/ApplianceDriverReachabilityChecker.h"

namespace veranda::reachabilityCache::bench {
namespace {

using applianceDriver::ApplianceDriverType;
using applianceDriver::DiscoveredDevice;

// Long enough that a re-armed cycle never runs during a benchmark.
constexpr std::chrono::seconds NEVER_AGAIN{365LL * 24 * 3600};
constexpr std::chrono::milliseconds CYCLE_TIMEOUT{120000};

std::shared_ptr<IReachabilityChecker> makeChecker(
    const std::vector<EndpointInfo>& endpoints, CheckPath path, CompletionSignal& done,
    applianceDriver::IUnifiedApplianceDriver* driver) {
  if (path == CheckPath::TEST_CHECKER) {
    return std::make_shared<SynchronousChecker>(endpoints, done);
  }
  return std::make_shared<ApplianceDriverReachabilityChecker>(*driver);
}

}  // namespace

std::chrono::duration<double> threadCpuTime() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
}

std::vector<EndpointInfo> FixedProvider::queryEndpoints() {
  const std::chrono::duration<double> now = threadCpuTime();
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (lastStart_.count() >= 0) {
      previousCycleCpu_ = now - lastStart_;
    }
    lastStart_ = now;
  }
  return endpoints_;
}

std::chrono::duration<double> FixedProvider::previousCycleCpu() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return previousCycleCpu_;
}

void CompletionSignal::signal() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    ++count_;
  }
  changed_.notify_all();
}

bool CompletionSignal::waitFor(uint64_t count, std::chrono::milliseconds timeout) {
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_for(lock, timeout, [&] { return count_ >= count; });
}

SynchronousChecker::SynchronousChecker(const std::vector<EndpointInfo>& endpoints,
                                       CompletionSignal& done)
    : done_(done) {
  for (const EndpointInfo& endpoint : endpoints) {
    answers_[0].emplace_back(endpoint.endpointId, endpoint.entityId, endpoint.adapterName, false,
                             CapabilitySet(), ApplianceDriverType::NO_DRIVER);
    answers_[1].emplace_back(endpoint.endpointId, endpoint.entityId, endpoint.adapterName, true,
                             endpoint.capabilities, ApplianceDriverType::NATIVE);
  }
}

bool SynchronousChecker::checkReachability(const std::vector<EndpointInfo>& /*endpoints*/,
                                           const std::string& /*requestId*/,
                                           ResultsCallback callback) {
  callback(answers_[nextReachable_ ? 1 : 0]);
  nextReachable_ = !nextReachable_;
  done_.signal();
  return true;
}

SynchronousDriver::SynchronousDriver(const std::vector<EndpointInfo>& endpoints,
                                     CompletionSignal& done)
    : answers_{devicesFor(endpoints, false), devicesFor(endpoints, true)}, done_(done) {}

bool SynchronousDriver::getReachableDevices(
    const std::string& /*requestId*/,
    std::function<void(const std::vector<DiscoveredDevice>&)> onDevices) {
  onDevices(answers_[nextReachable_ ? 1 : 0]);
  nextReachable_ = !nextReachable_;
  done_.signal();
  return true;
}

CycleRig::CycleRig(std::vector<EndpointInfo> endpoints, CheckPath path)
    : endpointCount_(endpoints.size()),
      cache_(std::make_shared<CacheCore>(UINT_MAX)),
      driver_(path == CheckPath::APPLIANCE_DRIVER
                  ? std::make_unique<SynchronousDriver>(endpoints, done_)
                  : nullptr),
      checker_(makeChecker(endpoints, path, done_, driver_.get())),
      provider_(std::move(endpoints)),
      updater_(std::make_unique<ReachabilityUpdater>(cache_, checker_, &provider_)),
      notifications_(std::make_shared<std::atomic<uint64_t>>(0)) {
  cache_->registerReachabilityListener(
      "benchmark", [count = notifications_](const std::string&, const std::string&, bool) {
        count->fetch_add(1, std::memory_order_relaxed);
      });
}

CycleRig::~CycleRig() { updater_.reset(); }

std::chrono::duration<double> CycleRig::runCycle() {
  const auto start = std::chrono::steady_clock::now();
  updater_->startPeriodicUpdates(NEVER_AGAIN, std::chrono::milliseconds(0));
  const bool finished = done_.waitFor(++cyclesStarted_, CYCLE_TIMEOUT);
  const auto end = std::chrono::steady_clock::now();
  // Drops the re-armed cycle; the next runCycle() starts a fresh chain.
  updater_->stopPeriodicUpdates();
  if (!finished) {
    return std::chrono::duration<double>(-1);
  }
  return end - start;
}

void CycleRig::addStaleEndpoints(std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    cache_->insertEndpoint(asCached(staleEndpointFor(++staleSeed_), ApplianceDriverType::NATIVE));
  }
}

uint64_t CycleRig::notifications() const { return notifications_->load(std::memory_order_relaxed); }

}  // namespace veranda::reachabilityCache::bench
