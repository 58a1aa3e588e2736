#include "reachabilityCache/ApplianceDriverReachabilityChecker.h"

#include <cstddef>
#include <string_view>
#include <utility>

#include "diagnostics/ComponentLog.h"
#include "diagnostics/LogBuilder.h"

namespace veranda::reachabilityCache {

using applianceDriver::ApplianceDriverType;
using applianceDriver::DiscoveredDevice;
using applianceDriver::IUnifiedApplianceDriver;
using applianceDriver::StateChangeEvent;
using commonLog::LogBuilder;

namespace {

// The driver type of results that no discovered device stands behind.
constexpr ApplianceDriverType kNoDriverType = static_cast<ApplianceDriverType>(2);

// The value of a JSON-encoded connectivity property that reports the endpoint
// as reachable.
constexpr const char* kQuotedOkValue = "\"OK\"";

void logUnsupportedAdapter(const DiscoveredDevice& device) {
  logChecker(LogPriority::kDebug, LogBuilder("updateResultWithDiscoveredDevice", nullptr)
                                      .d("endpointId", device.endpointId.c_str())
                                      .d("adapterName", device.adapterName.c_str())
                                      .d("reason", "unsupportedAdapter"));
}

void logInitialized(bool usingSingleton) {
  logChecker(LogPriority::kInfo, LogBuilder("ApplianceDriverReachabilityChecker", nullptr)
                                     .d("status", "initialized")
                                     .d("usingSingleton", boolText(usingSingleton)));
}

// What a driver's answer says about one requested endpoint. Devices are
// matched first and the endpoint's result is made once, after the last device:
// it is the result that replacing the requested data with each supported
// device in turn (updateResultWithDiscoveredDevice) leaves, without the
// copies made on the way.
class DeviceMatch {
 public:
  explicit DeviceMatch(const EndpointInfo& requested) : requested_(requested) {}

  // A device on a supported adapter that stands behind the endpoint; later
  // devices replace earlier ones, but their empty entity id or capabilities
  // keep the earlier ones.
  void add(const DiscoveredDevice& device) {
    last_ = &device;
    if (!device.entityId.empty()) {
      entityId_ = &device.entityId;
    }
    if (!device.capabilities.empty()) {
      capabilitiesFrom_ = &device;
      capabilityCopies_ = 0;
    } else {
      ++capabilityCopies_;
    }
  }

  ReachabilityCheckResult result(const ApplianceDriverReachabilityChecker& checker) const {
    if (last_ == nullptr) {
      return {requested_.endpointId,   requested_.entityId, requested_.adapterName, false,
              requested_.capabilities, kNoDriverType};
    }
    ReachabilityCheckResult result = checker.convertToReachabilityCheckResult(*last_);
    if (result.entityId.empty()) {
      result.entityId = entityId_ != nullptr ? *entityId_ : requested_.entityId;
    }
    if (capabilityCopies_ > 0) {
      result.capabilities = inheritedCapabilities(checker);
    }
    return result;
  }

 private:
  // The set that devices without capabilities passed on: each of them took
  // a copy of the one before, starting from the last device with capabilities
  // or from the requested endpoint. The copies are repeated so that the set
  // is laid out as theirs was.
  CapabilitySet inheritedCapabilities(const ApplianceDriverReachabilityChecker& checker) const {
    CapabilitySet capabilities =
        capabilitiesFrom_ != nullptr
            ? checker.convertToReachabilityCheckResult(*capabilitiesFrom_).capabilities
            : CapabilitySet(requested_.capabilities);
    for (std::size_t i = 0; i < capabilityCopies_; ++i) {
      CapabilitySet copy;
      copy = capabilities;
      capabilities = std::move(copy);
    }
    return capabilities;
  }

  const EndpointInfo& requested_;
  const DiscoveredDevice* last_ = nullptr;
  const std::string* entityId_ = nullptr;  // of the last device that reported one
  const DiscoveredDevice* capabilitiesFrom_ = nullptr;
  std::size_t capabilityCopies_ = 0;  // devices without capabilities since capabilitiesFrom_
};

std::string describeRequest(const std::vector<EndpointInfo>& endpoints,
                            const std::string& requestId) {
  std::string details = "requestId=" + requestId + " count=" + std::to_string(endpoints.size());
  for (const EndpointInfo& endpoint : endpoints) {
    details += "\n   ";
    details += endpoint.endpointId;
    details += " -> ";
    details += endpoint.entityId;
  }
  return details;
}

}  // namespace

const std::unordered_set<std::string> ApplianceDriverReachabilityChecker::SUPPORTED_ADAPTERS = {
    "PROT_ZIGBEE-ADAPTER", "PROT_WIFI-ADAPTER",     "PROT_LOCALSKILLS-ADAPTER", "PROT_CHIP-ADAPTER",
    "PROT_BLE-ADAPTER",    "PROT_BLE_MESH-ADAPTER", "PROT_MOCK-ADAPTER",
};
const std::string ApplianceDriverReachabilityChecker::ENDPOINT_HEALTH_NAMESPACE =
    "Veyra.EndpointHealth";
const std::string ApplianceDriverReachabilityChecker::CONNECTIVITY_PROPERTY = "connectivity";
const std::string ApplianceDriverReachabilityChecker::CONNECTIVITY_OK_VALUE = "OK";

ApplianceDriverReachabilityChecker::ApplianceDriverReachabilityChecker()
    : driver(applianceDriver::getUnifiedApplianceDriver()) {
  logInitialized(true);
}

ApplianceDriverReachabilityChecker::ApplianceDriverReachabilityChecker(
    IUnifiedApplianceDriver& driver)
    : driver(driver) {
  logInitialized(false);
}

// Subscriptions still registered are not cancelled: their owners unregister
// them before letting the checker go.
ApplianceDriverReachabilityChecker::~ApplianceDriverReachabilityChecker() = default;

bool ApplianceDriverReachabilityChecker::checkReachability(
    const std::vector<EndpointInfo>& endpoints, const std::string& requestId,
    ResultsCallback callback) {
  const std::string details = describeRequest(endpoints, requestId);
  logChecker(LogPriority::kDebug,
             LogBuilder("checkReachability", nullptr).d("details", details.c_str()));

  if (endpoints.empty()) {
    logChecker(LogPriority::kDebug,
               LogBuilder("checkReachability", nullptr).d("reason", "noEndpointsToCheck"));
    callback({});
    return true;
  }

  std::unordered_map<std::string, EndpointInfo> lookup;
  buildEndpointLookupMap(endpoints, lookup);

  auto completion = [checker = this, lookup = std::move(lookup), callback = std::move(callback),
                     requestId](const std::vector<DiscoveredDevice>& devices) {
    callback(checker->processDiscoveredDevices(devices, lookup, requestId));
  };

  if (!driver.getReachableDevices(requestId, std::move(completion))) {
    logChecker(LogPriority::kError, LogBuilder("checkReachability", nullptr)
                                        .d("requestId", requestId.c_str())
                                        .d("reason", "getReachableDevicesFailed"));
    return false;
  }
  logChecker(LogPriority::kInfo, LogBuilder("checkReachability", nullptr)
                                     .d("requestId", requestId.c_str())
                                     .d("status", "requestSent"));
  return true;
}

void ApplianceDriverReachabilityChecker::buildEndpointLookupMap(
    const std::vector<EndpointInfo>& endpoints,
    std::unordered_map<std::string, EndpointInfo>& lookup) const {
  for (const EndpointInfo& endpoint : endpoints) {
    lookup.insert_or_assign(endpoint.endpointId, endpoint);
  }
}

std::vector<ReachabilityCheckResult> ApplianceDriverReachabilityChecker::processDiscoveredDevices(
    const std::vector<DiscoveredDevice>& devices,
    const std::unordered_map<std::string, EndpointInfo>& lookup,
    const std::string& requestId) const {
  // Keyed by views of the same ids and filled in the same order as a table of
  // results would be, so that results come out in that table's order.
  std::unordered_map<std::string_view, DeviceMatch> matches;
  for (const auto& [endpointId, endpoint] : lookup) {
    matches.emplace(endpointId, DeviceMatch(endpoint));
  }
  for (const DiscoveredDevice& device : devices) {
    const auto match = matches.find(device.endpointId);
    if (match == matches.end()) {
      continue;
    }
    if (!isSupportedAdapter(device.adapterName)) {
      logUnsupportedAdapter(device);
      continue;
    }
    match->second.add(device);
  }

  std::vector<ReachabilityCheckResult> results;
  results.reserve(matches.size());
  for (const auto& entry : matches) {
    results.push_back(entry.second.result(*this));
  }
  logChecker(LogPriority::kInfo, LogBuilder("processDiscoveredDevices", nullptr)
                                     .d("requestId", requestId.c_str())
                                     .d("deviceCount", devices.size())
                                     .d("resultCount", results.size()));
  return results;
}

void ApplianceDriverReachabilityChecker::updateResultWithDiscoveredDevice(
    const DiscoveredDevice& device,
    std::unordered_map<std::string, ReachabilityCheckResult>& results) const {
  auto stored = results.find(device.endpointId);
  if (stored == results.end()) {
    return;
  }
  if (!isSupportedAdapter(device.adapterName)) {
    logUnsupportedAdapter(device);
    return;
  }

  ReachabilityCheckResult converted = convertToReachabilityCheckResult(device);
  if (converted.entityId.empty()) {
    converted.entityId = stored->second.entityId;
  }
  if (converted.capabilities.empty()) {
    converted.capabilities = stored->second.capabilities;
  }
  stored->second = std::move(converted);
}

ReachabilityCheckResult ApplianceDriverReachabilityChecker::convertToReachabilityCheckResult(
    const DiscoveredDevice& device) const {
  CapabilitySet capabilities;
  for (const applianceDriver::DeviceCapability& capability : device.capabilities) {
    capabilities.insert(CapabilityKey{capability.first, capability.second});
  }
  return {device.endpointId,  device.entityId,         device.adapterName,
          device.isReachable, std::move(capabilities), device.driverType};
}

bool ApplianceDriverReachabilityChecker::isSupportedAdapter(const std::string& adapterName) const {
  return SUPPORTED_ADAPTERS.count(adapterName) != 0;
}

bool ApplianceDriverReachabilityChecker::validateCallbackParams(
    const std::string& callbackId, const UpdateCallback& callback) const {
  if (callbackId.empty()) {
    logChecker(LogPriority::kError,
               LogBuilder("validateCallbackParams", nullptr).d("reason", "emptyCallbackId"));
    return false;
  }
  if (!callback) {
    logChecker(LogPriority::kError,
               LogBuilder("validateCallbackParams", nullptr).d("reason", "nullCallback"));
    return false;
  }
  return true;
}

bool ApplianceDriverReachabilityChecker::isCallbackIdRegistered(
    const std::string& callbackId) const {
  MutexLock lock(callbackMutex);
  return registeredCallbackIds.count(callbackId) != 0;
}

bool ApplianceDriverReachabilityChecker::registerReachabilityUpdateCallback(
    const std::string& callbackId, UpdateCallback callback) {
  logChecker(LogPriority::kDebug, LogBuilder("registerReachabilityUpdateCallback", nullptr)
                                      .d("callbackId", callbackId.c_str()));
  if (!validateCallbackParams(callbackId, callback)) {
    return false;
  }
  if (isCallbackIdRegistered(callbackId)) {
    logChecker(LogPriority::kWarn, LogBuilder("registerReachabilityUpdateCallback", nullptr)
                                       .d("reason", "duplicateCallbackId"));
    return false;
  }

  // The driver is called without the lock: two registrations of one id may
  // both reach it, and the set then holds the id once.
  if (!driver.subscribeStateChanges(
          {}, callbackId, createStateChangeCallbackWrapper(std::move(callback)), nullptr)) {
    logChecker(LogPriority::kError, LogBuilder("registerReachabilityUpdateCallback", nullptr)
                                        .d("callbackId", callbackId.c_str())
                                        .d("reason", "subscriptionFailed"));
    return false;
  }

  MutexLock lock(callbackMutex);
  registeredCallbackIds.insert(callbackId);
  logChecker(LogPriority::kInfo, LogBuilder("registerReachabilityUpdateCallback", nullptr)
                                     .d("callbackId", callbackId.c_str())
                                     .d("status", "registered"));
  return true;
}

bool ApplianceDriverReachabilityChecker::unregisterReachabilityUpdateCallback(
    const std::string& callbackId) {
  logChecker(LogPriority::kDebug, LogBuilder("unregisterReachabilityUpdateCallback", nullptr)
                                      .d("callbackId", callbackId.c_str()));
  if (callbackId.empty()) {
    logChecker(
        LogPriority::kError,
        LogBuilder("unregisterReachabilityUpdateCallback", nullptr).d("reason", "emptyCallbackId"));
    return false;
  }
  if (!isCallbackIdRegistered(callbackId)) {
    logChecker(LogPriority::kWarn, LogBuilder("unregisterReachabilityUpdateCallback", nullptr)
                                       .d("reason", "callbackNotFound")
                                       .d("callbackId", callbackId.c_str()));
    return false;
  }

  // A refused cancellation keeps the id registered so that the caller may
  // try again.
  if (!driver.unsubscribeStateChanges(callbackId)) {
    logChecker(LogPriority::kWarn, LogBuilder("unregisterReachabilityUpdateCallback", nullptr)
                                       .d("callbackId", callbackId.c_str())
                                       .d("reason", "unsubscriptionFailed"));
    return false;
  }

  MutexLock lock(callbackMutex);
  registeredCallbackIds.erase(callbackId);
  logChecker(LogPriority::kInfo, LogBuilder("unregisterReachabilityUpdateCallback", nullptr)
                                     .d("callbackId", callbackId.c_str())
                                     .d("status", "unregistered"));
  return true;
}

std::function<void(const StateChangeEvent&)>
ApplianceDriverReachabilityChecker::createStateChangeCallbackWrapper(
    UpdateCallback callback) const {
  // Runs on the driver's thread; it touches no checker state and takes no lock.
  return [callback = std::move(callback)](const StateChangeEvent& event) {
    logChecker(LogPriority::kDebug, LogBuilder("operator()", "stateChangeCallback")
                                        .d("endpointId", event.endpointId.c_str())
                                        .d("namespace", event.namespace_.c_str())
                                        .d("propertyName", event.propertyName.c_str())
                                        .d("value", event.value.c_str()));
    if (event.namespace_ != ENDPOINT_HEALTH_NAMESPACE ||
        event.propertyName != CONNECTIVITY_PROPERTY) {
      logChecker(
          LogPriority::kDebug,
          LogBuilder("operator()", "stateChangeCallback").d("reason", "notConnectivityEvent"));
      return;
    }

    // The value is either bare or JSON text with the state in double quotes.
    const bool reachable = event.value == CONNECTIVITY_OK_VALUE ||
                           event.value.find(kQuotedOkValue) != std::string::npos;
    const ReachabilityCheckResult result(event.endpointId, "", "", reachable, CapabilitySet(),
                                         kNoDriverType);
    logChecker(LogPriority::kInfo, LogBuilder("operator()", "stateChangeCallback")
                                       .d("endpointId", event.endpointId.c_str())
                                       .d("isReachable", boolText(reachable))
                                       .d("action", "invokingCallback"));
    callback(result);
  };
}

}  // namespace veranda::reachabilityCache
