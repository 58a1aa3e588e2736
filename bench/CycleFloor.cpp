#include "CycleFloor.h"

#include <android/log.h>

#include <string_view>
#include <unordered_set>
#include <utility>

#include "BenchData.h"
#include "StackLine.h"

namespace veranda::reachabilityCache::bench {
namespace {

using applianceDriver::DiscoveredDevice;

constexpr const char* STORE_TAG = "ReachabilityCache-CacheCore";
constexpr const char* UPDATER_TAG = "ReachabilityCache-ReachabilityUpdater";
constexpr const char* CHECKER_TAG = "ReachabilityCache-ApplianceDriverChecker";

// The id under which the store keeps an entity: without the host's prefix.
std::string_view normalized(std::string_view entityId) {
  const std::string_view prefix = ENTITY_ID_PREFIX;
  return entityId.substr(0, prefix.size()) == prefix ? entityId.substr(prefix.size()) : entityId;
}

void write(int priority, const char* tag, StackLine& line) {
  writeFloorLine(priority, tag, line.c_str());
}

// "[removeEndpoint]: action=... entityId=... endpointId=..." and its kin.
void writeEndpointAction(int priority, const char* function, const char* action,
                         std::string_view entityId, std::string_view endpointId) {
  StackLine line;
  line << "[" << function << "]: action=" << action << " entityId=" << entityId
       << " endpointId=" << endpointId;
  write(priority, STORE_TAG, line);
}

}  // namespace

CycleFloor::CycleFloor(const std::vector<EndpointInfo>& endpoints)
    : provider_(endpoints), answers_{devicesFor(endpoints, false), devicesFor(endpoints, true)} {
  records_.reserve(endpoints.size());
  for (const EndpointInfo& endpoint : endpoints) {
    records_[endpoint.endpointId] = {
        std::string(normalized(endpoint.entityId)), endpoint.adapterName, false, {}};
  }
}

void CycleFloor::addStaleEndpoints(std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    const EndpointInfo stale = staleEndpointFor(++staleSeed_);
    records_[stale.endpointId] = {stale.entityId, stale.adapterName, true, stale.capabilities};
  }
}

void CycleFloor::runCycle() {
  // The provider's copy of its list.
  const std::vector<EndpointInfo> endpoints = provider_.queryEndpoints();
  StackLine count;
  count << "[performPeriodicUpdate]: endpointCount=" << endpoints.size();
  write(ANDROID_LOG_DEBUG, UPDATER_TAG, count);
  sweep(endpoints);

  const std::string requestId = "periodic_" + std::to_string(cycles_++);
  std::string request = "[checkReachability]: details=requestId=" + requestId +
                        " count=" + std::to_string(endpoints.size());
  for (const EndpointInfo& endpoint : endpoints) {
    request.append("\n   ").append(endpoint.endpointId).append(" -> ").append(endpoint.entityId);
  }
  writeFloorLine(ANDROID_LOG_DEBUG, CHECKER_TAG, request.c_str());

  const std::vector<DiscoveredDevice>& devices = answers_[nextReachable_ ? 1 : 0];
  nextReachable_ = !nextReachable_;
  StackLine answered;
  answered << "[processDiscoveredDevices]: requestId=" << requestId
           << " deviceCount=" << devices.size() << " resultCount=" << devices.size();
  write(ANDROID_LOG_INFO, CHECKER_TAG, answered);
  Summary summary;
  for (const DiscoveredDevice& device : devices) {
    apply(device, summary);
  }
  std::string line = "[processReachabilityResults] processReachabilityResults: reachable=" +
                     std::to_string(summary.reachable) +
                     " unreachable=" + std::to_string(summary.unreachable) +
                     " changed=" + std::to_string(summary.changed) + " details=";
  line += summary.details;
  writeFloorLine(ANDROID_LOG_INFO, UPDATER_TAG, line.c_str());
  StackLine sent;
  sent << "[checkReachability]: requestId=" << requestId << " status=requestSent";
  write(ANDROID_LOG_INFO, CHECKER_TAG, sent);
}

void CycleFloor::sweep(const std::vector<EndpointInfo>& endpoints) {
  std::unordered_set<std::string_view> named;
  named.reserve(endpoints.size());
  for (const EndpointInfo& endpoint : endpoints) {
    named.insert(endpoint.endpointId);
  }
  for (auto record = records_.begin(); record != records_.end();) {
    if (named.count(record->first) != 0) {
      ++record;
      continue;
    }
    writeEndpointAction(ANDROID_LOG_INFO, "removeEndpoint", "removedEndpointAndEntity",
                        record->second.entityId, record->first);
    record = records_.erase(record);
  }
}

void CycleFloor::apply(const DiscoveredDevice& device, Summary& summary) {
  const auto found = records_.find(device.endpointId);
  Record& record = found->second;
  const bool wasReachable = record.reachable;
  StackLine judged;
  judged << "[isEntityReachable]: entityId=" << record.entityId
         << (wasReachable ? " reachable=true" : " reachable=false reason=noDriverCapabilities");
  write(ANDROID_LOG_DEBUG, STORE_TAG, judged);

  const char* status = nullptr;
  if (device.isReachable) {
    record.reachable = true;
    if (record.capabilities.empty()) {
      for (const applianceDriver::DeviceCapability& capability : device.capabilities) {
        record.capabilities.insert(CapabilityKey{capability.first, capability.second});
      }
    }
    StackLine merged;
    merged << "[insertEndpoint]: action=merged entityId=" << record.entityId
           << " endpointId=" << device.endpointId << " driverCount=" << std::size_t{1};
    write(ANDROID_LOG_DEBUG, STORE_TAG, merged);
    status = wasReachable ? "reachable" : "reachable (becameReachable)";
    ++summary.reachable;
  } else if (wasReachable) {
    record.reachable = false;
    record.capabilities.clear();
    writeEndpointAction(ANDROID_LOG_DEBUG, "clearEndpointCapabilities", "clearedCapabilities",
                        record.entityId, device.endpointId);
    status = "unreachable (becameUnreachable)";
    ++summary.unreachable;
  } else {
    status = "unreachable (alreadyUnreachable)";
    ++summary.unreachable;
  }
  if (record.reachable != wasReachable) {
    StackLine told;
    told << "[notifyReachabilityListeners]: action=notifyReachabilityListeners endpointId="
         << device.endpointId << " entityId=" << device.entityId
         << (record.reachable ? " isReachable=true" : " isReachable=false")
         << " listenerCount=" << std::size_t{1};
    write(ANDROID_LOG_DEBUG, STORE_TAG, told);
    ++summary.changed;
    listener_(device.endpointId, device.entityId, record.reachable);
  }
  summary.details.append("\n    ")
      .append(device.endpointId)
      .append(" (entityId=")
      .append(device.entityId)
      .append(", adapter=")
      .append(device.adapterName)
      .append("): ")
      .append(status);
}

}  // namespace veranda::reachabilityCache::bench
