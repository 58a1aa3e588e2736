#include "CycleFloor.h"

#include <android/log.h>

#include <string_view>
#include <unordered_set>
#include <utility>

#include "BenchData.h"
#include "StackLine.h"
#include "diagnostics/LogSchema.h"
#include "diagnostics/LogSink.h"

namespace veranda::reachabilityCache::bench {
namespace {

using applianceDriver::DiscoveredDevice;
using namespace logSchema;

// The fixed pieces of the cycle's lines, made once from the schema.
struct CycleLineText {
  const std::string endpointCount =
      labelThenKey(label::PERFORM_PERIODIC_UPDATE, key::ENDPOINT_COUNT);
  const std::string removed = labelThenKey(label::REMOVE_ENDPOINT, key::ACTION) +
                              action::REMOVED_ENDPOINT_AND_ENTITY + field(key::ENTITY_ID);
  const std::string cleared = labelThenKey(label::CLEAR_ENDPOINT_CAPABILITIES, key::ACTION) +
                              action::CLEARED_CAPABILITIES + field(key::ENTITY_ID);
  const std::string merged =
      labelThenKey(label::INSERT_ENDPOINT, key::ACTION) + action::MERGED + field(key::ENTITY_ID);
  const std::string endpointId = field(key::ENDPOINT_ID);
  const std::string driverCount = field(key::DRIVER_COUNT);
  const std::string judged = labelThenKey(label::IS_ENTITY_REACHABLE, key::ENTITY_ID);
  const std::string reachable = field(key::REACHABLE, value::TRUE_TEXT);
  const std::string notReachable =
      field(key::REACHABLE, value::FALSE_TEXT) + field(key::REASON, reason::NO_DRIVER_CAPABILITIES);
  const std::string told = labelThenKey(label::NOTIFY_REACHABILITY_LISTENERS, key::ACTION) +
                           action::NOTIFY_REACHABILITY_LISTENERS + field(key::ENDPOINT_ID);
  const std::string entityId = field(key::ENTITY_ID);
  const std::string isReachable = field(key::IS_REACHABLE, value::TRUE_TEXT);
  const std::string isNotReachable = field(key::IS_REACHABLE, value::FALSE_TEXT);
  const std::string listenerCount = field(key::LISTENER_COUNT);
  const std::string request =
      labelThenKey(label::CHECK_REACHABILITY, key::DETAILS) + key::REQUEST_ID + "=";
  const std::string count = " count=";
  const std::string answered = labelThenKey(label::PROCESS_DISCOVERED_DEVICES, key::REQUEST_ID);
  const std::string deviceCount = field(key::DEVICE_COUNT);
  const std::string resultCount = field(key::RESULT_COUNT);
  const std::string summary = std::string("[") + label::PROCESS_REACHABILITY_RESULTS + "] " +
                              label::PROCESS_REACHABILITY_RESULTS + ": " + key::REACHABLE + "=";
  const std::string unreachable = field(key::UNREACHABLE);
  const std::string changed = field(key::CHANGED);
  const std::string details = field(key::DETAILS);
  const std::string entryEntity = " (entityId=";
  const std::string entryAdapter = ", adapter=";
  const std::string entryStatus = "): ";
  const std::string sent = labelThenKey(label::CHECK_REACHABILITY, key::REQUEST_ID);
  const std::string requestSent = field(key::STATUS, status::REQUEST_SENT);
};
const CycleLineText LINE_TEXT;

// The id under which the store keeps an entity: without the host's prefix.
std::string_view normalized(std::string_view entityId) {
  const std::string_view prefix = ENTITY_ID_PREFIX;
  return entityId.substr(0, prefix.size()) == prefix ? entityId.substr(prefix.size()) : entityId;
}

void write(int priority, const char* tag, StackLine& line) {
  writeLogLine(priority, tag, line.text());
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
  count << LINE_TEXT.endpointCount << endpoints.size();
  write(ANDROID_LOG_DEBUG, tag::UPDATER, count);
  sweep(endpoints);

  const std::string requestId = requestIdPrefix::PERIODIC + std::to_string(cycles_++);
  std::string request =
      LINE_TEXT.request + requestId + LINE_TEXT.count + std::to_string(endpoints.size());
  for (const EndpointInfo& endpoint : endpoints) {
    request.append(request::ENTRY_START)
        .append(endpoint.endpointId)
        .append(request::MAPS_TO)
        .append(endpoint.entityId);
  }
  writeLogLine(ANDROID_LOG_DEBUG, tag::CHECKER, request.c_str());

  const std::vector<DiscoveredDevice>& devices = answers_[nextReachable_ ? 1 : 0];
  nextReachable_ = !nextReachable_;
  StackLine answered;
  answered << LINE_TEXT.answered << requestId << LINE_TEXT.deviceCount << devices.size()
           << LINE_TEXT.resultCount << devices.size();
  write(ANDROID_LOG_INFO, tag::CHECKER, answered);
  Totals totals;
  for (const DiscoveredDevice& device : devices) {
    apply(device, totals);
  }
  std::string line = LINE_TEXT.summary + std::to_string(totals.reachable) + LINE_TEXT.unreachable +
                     std::to_string(totals.unreachable) + LINE_TEXT.changed +
                     std::to_string(totals.changed) + LINE_TEXT.details;
  line += totals.details;
  writeLogLine(ANDROID_LOG_INFO, tag::UPDATER, line.c_str());
  StackLine sent;
  sent << LINE_TEXT.sent << requestId << LINE_TEXT.requestSent;
  write(ANDROID_LOG_INFO, tag::CHECKER, sent);
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
    StackLine removed;
    removed << LINE_TEXT.removed << record->second.entityId << LINE_TEXT.endpointId
            << record->first;
    write(ANDROID_LOG_INFO, tag::STORE, removed);
    record = records_.erase(record);
  }
}

void CycleFloor::apply(const DiscoveredDevice& device, Totals& totals) {
  const auto found = records_.find(device.endpointId);
  Record& record = found->second;
  const bool wasReachable = record.reachable;
  StackLine judged;
  judged << LINE_TEXT.judged << record.entityId
         << (wasReachable ? LINE_TEXT.reachable : LINE_TEXT.notReachable);
  write(ANDROID_LOG_DEBUG, tag::STORE, judged);

  const char* status = nullptr;
  if (device.isReachable) {
    record.reachable = true;
    if (record.capabilities.empty()) {
      for (const applianceDriver::DeviceCapability& capability : device.capabilities) {
        record.capabilities.insert(CapabilityKey{capability.first, capability.second});
      }
    }
    StackLine merged;
    merged << LINE_TEXT.merged << record.entityId << LINE_TEXT.endpointId << device.endpointId
           << LINE_TEXT.driverCount << std::size_t{1};
    write(ANDROID_LOG_DEBUG, tag::STORE, merged);
    status = wasReachable ? summary::REACHABLE : summary::BECAME_REACHABLE;
    ++totals.reachable;
  } else if (wasReachable) {
    record.reachable = false;
    record.capabilities.clear();
    StackLine cleared;
    cleared << LINE_TEXT.cleared << record.entityId << LINE_TEXT.endpointId << device.endpointId;
    write(ANDROID_LOG_DEBUG, tag::STORE, cleared);
    status = summary::BECAME_UNREACHABLE;
    ++totals.unreachable;
  } else {
    status = summary::ALREADY_UNREACHABLE;
    ++totals.unreachable;
  }
  if (record.reachable != wasReachable) {
    StackLine told;
    told << LINE_TEXT.told << device.endpointId << LINE_TEXT.entityId << device.entityId
         << (record.reachable ? LINE_TEXT.isReachable : LINE_TEXT.isNotReachable)
         << LINE_TEXT.listenerCount << std::size_t{1};
    write(ANDROID_LOG_DEBUG, tag::STORE, told);
    ++totals.changed;
    listener_(device.endpointId, device.entityId, record.reachable);
  }
  totals.details.append(summary::ENTRY_START)
      .append(device.endpointId)
      .append(LINE_TEXT.entryEntity)
      .append(device.entityId)
      .append(LINE_TEXT.entryAdapter)
      .append(device.adapterName)
      .append(LINE_TEXT.entryStatus)
      .append(status);
}

}  // namespace veranda::reachabilityCache::bench
