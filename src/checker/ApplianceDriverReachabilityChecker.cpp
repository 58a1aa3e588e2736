#include "reachabilityCache/ApplianceDriverReachabilityChecker.h"

#include <cstddef>
#include <memory>
#include <mutex>
#include <string_view>
#include <utility>

#include "checker/CapabilitySetCopy.h"
#include "diagnostics/ComponentLog.h"
#include "diagnostics/LogBuilder.h"
#include "diagnostics/LogSchema.h"
#include "memory/Arena.h"

namespace veranda::reachabilityCache {

using namespace logSchema;

using applianceDriver::ApplianceDriverType;
using applianceDriver::DiscoveredDevice;
using applianceDriver::IUnifiedApplianceDriver;
using applianceDriver::StateChangeEvent;
using commonLog::LogBuilder;

namespace {

// The value of a JSON-encoded connectivity property that reports the endpoint
// as reachable.
constexpr const char* QUOTED_OK_VALUE = "\"OK\"";

void logInitialized(bool usingSingleton) {
  logChecker(LogPriority::INFO, LogBuilder(label::APPLIANCE_DRIVER_REACHABILITY_CHECKER, nullptr)
                                    .d(key::STATUS, status::INITIALIZED)
                                    .d(key::USING_SINGLETON, boolText(usingSingleton)));
}

// The device's capabilities as capability keys; entries that make an equal key
// are kept once.
CapabilitySet capabilitiesOf(const DiscoveredDevice& device) {
  CapabilitySet capabilities;
  for (const applianceDriver::DeviceCapability& capability : device.capabilities) {
    capabilities.insert(CapabilityKey{capability.first, capability.second});
  }
  return capabilities;
}

// Tables that live for one check, their nodes in an arena.
template <typename Key, typename Value>
using ArenaTable = std::unordered_map<Key, Value, std::hash<Key>, std::equal_to<Key>,
                                      ArenaAllocator<std::pair<const Key, Value>>>;

struct RequestedEndpoint;
// Endpoint id to the requested endpoint of that id.
using RequestTable = ArenaTable<std::string_view, RequestedEndpoint*>;

// One requested endpoint; its ids view the request's text.
struct RequestedEndpoint {
  std::string_view endpointId;
  std::string_view entityId;
  std::string_view adapterName;
  // Its capabilities as the request's table would keep them: a copy of the
  // requested set, listed (keys and bucket count) so that the copy can be
  // rebuilt for the result that needs it, or, where that cannot be done,
  // held whole.
  std::size_t firstKey = 0;
  std::size_t keyCount = 0;
  std::size_t bucketCount = 0;
  std::unique_ptr<CapabilitySet> whole;
};

// Completes the result that the devices left for `endpointId`: what no
// supported device gave comes from the request. A supported device always
// names its adapter, so only an endpoint that none stood behind lacks one.
template <typename Request>
ReachabilityCheckResult completedResult(std::string endpointId, ReachabilityCheckResult result,
                                        const Request& request,
                                        const RequestedEndpoint& requested) {
  result.endpointId = std::move(endpointId);
  if (result.adapterName.empty()) {
    result.adapterName = requested.adapterName;
  }
  if (result.entityId.empty()) {
    result.entityId = requested.entityId;
  }
  if (result.capabilities.empty()) {
    request.assignCapabilities(requested, result.capabilities);
  }
  return result;
}

std::string describeRequest(const std::vector<EndpointInfo>& endpoints,
                            const std::string& requestId) {
  std::string details = key::REQUEST_ID;
  details += '=';
  details += requestId;
  details += ' ';
  details += key::COUNT;
  details += '=';
  details += std::to_string(endpoints.size());
  for (const EndpointInfo& endpoint : endpoints) {
    details += request::ENTRY_START;
    details += endpoint.endpointId;
    details += request::MAPS_TO;
    details += endpoint.entityId;
  }
  return details;
}

}  // namespace

// Every id and capability of the request in one block of text, so that
// holding a request until the driver answers costs a few allocations rather
// than about a dozen per endpoint. The lookup table is keyed by views of the
// ids, with the same hash and the same insertions as a table keyed by the
// ids' strings, so that it lists the endpoints in the same order; the
// capability sets that a table of whole endpoints would hold are rebuilt
// only for the results that take one.
// Endpoint id to the result that the driver's devices make of it.
class ApplianceDriverReachabilityChecker::ResultTable
    : public ArenaTable<std::string, ReachabilityCheckResult> {
 public:
  using Table = ArenaTable<std::string, ReachabilityCheckResult>;
  using Table::Table;
};

class ApplianceDriverReachabilityChecker::CheckRequest {
 public:
  explicit CheckRequest(const std::vector<EndpointInfo>& endpoints) {
    std::size_t length = 0;
    std::size_t keys = 0;
    for (const EndpointInfo& endpoint : endpoints) {
      length += endpoint.endpointId.size() + endpoint.entityId.size() + endpoint.adapterName.size();
      for (const CapabilityKey& key : endpoint.capabilities) {
        length += key.capability.size() + key.qualifier.size();
      }
      keys += endpoint.capabilities.size();
    }
    // Reserved whole, so that appending never moves what the views see; the
    // same for the entries, which the table points to.
    text_.reserve(length);
    keys_.reserve(keys);
    entries_.reserve(endpoints.size());
  }

  // Adds `endpoint`; a later endpoint of the same id replaces the earlier
  // one's data in place, as assigning it to the table's entry does.
  void add(const EndpointInfo& endpoint) {
    const auto found = lookup_.find(endpoint.endpointId);
    if (found == lookup_.end()) {
      RequestedEndpoint& entry = entries_.emplace_back();
      entry.endpointId = keep(endpoint.endpointId);
      entry.entityId = keep(endpoint.entityId);
      entry.adapterName = keep(endpoint.adapterName);
      keepCapabilities(endpoint.capabilities, entry);
      lookup_.emplace(entry.endpointId, &entry);
      return;
    }
    RequestedEndpoint& entry = *found->second;
    entry.entityId = keep(endpoint.entityId);
    entry.adapterName = keep(endpoint.adapterName);
    if (!entry.whole) {
      entry.whole = std::make_unique<CapabilitySet>(rebuilt(entry));
    }
    *entry.whole = endpoint.capabilities;
  }

  // Endpoint id to the requested endpoint of that id.
  const RequestTable& lookup() const { return lookup_; }

  // Assigns the entry's capabilities, as the table's copy of the requested
  // set, to `target`.
  void assignCapabilities(const RequestedEndpoint& entry, CapabilitySet& target) const {
    if (entry.whole) {
      target = *entry.whole;
      return;
    }
    const CapabilitySet kept = rebuilt(entry);
    target = kept;
  }

 private:
  // The table's copy of the set of an entry that lists its keys.
  CapabilitySet rebuilt(const RequestedEndpoint& entry) const {
    const auto first = keys_.begin() + static_cast<std::ptrdiff_t>(entry.firstKey);
    return rebuildCopy(first, first + static_cast<std::ptrdiff_t>(entry.keyCount),
                       entry.bucketCount);
  }

  std::string_view keep(const std::string& text) {
    const std::size_t start = text_.size();
    text_ += text;
    return std::string_view(text_).substr(start, text.size());
  }

  void keepCapabilities(const CapabilitySet& capabilities, RequestedEndpoint& entry) {
    if (capabilities.max_load_factor() != CapabilitySet().max_load_factor() ||
        !rebuildable(capabilities.bucket_count())) {
      entry.whole = std::make_unique<CapabilitySet>(capabilities);
      return;
    }
    entry.firstKey = keys_.size();
    entry.keyCount = capabilities.size();
    entry.bucketCount = capabilities.bucket_count();
    for (const CapabilityKey& key : capabilities) {
      keys_.emplace_back(keep(key.capability), keep(key.qualifier));
    }
  }

  // canRebuildCopy(), asked once per bucket count in a row: the sets of one
  // request mostly share theirs.
  bool rebuildable(std::size_t bucketCount) {
    if (bucketCount != probedBucketCount_) {
      probedBucketCount_ = bucketCount;
      probedRebuildable_ = canRebuildCopy(bucketCount);
    }
    return probedRebuildable_;
  }

  std::string text_;
  std::vector<CapabilityKeyView> keys_;
  std::vector<RequestedEndpoint> entries_;
  Arena arena_;  // the table's nodes and buckets
  RequestTable lookup_{RequestTable::allocator_type(arena_)};
  std::size_t probedBucketCount_ = 0;
  bool probedRebuildable_ = false;
};

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
  logChecker(LogPriority::DEBUG,
             LogBuilder(label::CHECK_REACHABILITY, nullptr).d(key::DETAILS, details.c_str()));

  if (endpoints.empty()) {
    logChecker(LogPriority::DEBUG, LogBuilder(label::CHECK_REACHABILITY, nullptr)
                                       .d(key::REASON, reason::NO_ENDPOINTS_TO_CHECK));
    callback({});
    return true;
  }

  // Shared by the copies that the driver may make of the completion.
  auto request = std::make_shared<CheckRequest>(endpoints);
  buildEndpointLookupMap(endpoints, *request);

  auto completion = [checker = this, request = std::shared_ptr<const CheckRequest>(request),
                     callback = std::move(callback),
                     requestId](const std::vector<DiscoveredDevice>& devices) {
    callback(checker->processDiscoveredDevices(devices, *request, requestId));
  };

  if (!driver.getReachableDevices(requestId, std::move(completion))) {
    logChecker(LogPriority::ERROR, LogBuilder(label::CHECK_REACHABILITY, nullptr)
                                       .d(key::REQUEST_ID, requestId.c_str())
                                       .d(key::REASON, reason::GET_REACHABLE_DEVICES_FAILED));
    return false;
  }
  logChecker(LogPriority::INFO, LogBuilder(label::CHECK_REACHABILITY, nullptr)
                                    .d(key::REQUEST_ID, requestId.c_str())
                                    .d(key::STATUS, status::REQUEST_SENT));
  return true;
}

void ApplianceDriverReachabilityChecker::buildEndpointLookupMap(
    const std::vector<EndpointInfo>& endpoints, CheckRequest& request) const {
  for (const EndpointInfo& endpoint : endpoints) {
    request.add(endpoint);
  }
}

std::vector<ReachabilityCheckResult> ApplianceDriverReachabilityChecker::processDiscoveredDevices(
    const std::vector<DiscoveredDevice>& devices, const CheckRequest& request,
    const std::string& requestId) const {
  // Every requested endpoint starts unreachable, with nothing copied yet: the
  // requested data fills in at the end what no device replaced.
  Arena arena;
  ResultTable table{ResultTable::allocator_type(arena)};
  for (const auto& entry : request.lookup()) {
    table.emplace(std::string(entry.first),
                  ReachabilityCheckResult("", "", "", false, {}, ApplianceDriverType::NO_DRIVER));
  }
  for (const DiscoveredDevice& device : devices) {
    updateResultWithDiscoveredDevice(device, table);
  }

  // In the table's order; each id moves from the table's key into its result.
  std::vector<ReachabilityCheckResult> results;
  results.reserve(table.size());
  while (!table.empty()) {
    auto entry = table.extract(table.begin());
    const RequestedEndpoint& requested = *request.lookup().find(entry.key())->second;
    results.push_back(
        completedResult(std::move(entry.key()), std::move(entry.mapped()), request, requested));
  }
  logChecker(LogPriority::INFO, LogBuilder(label::PROCESS_DISCOVERED_DEVICES, nullptr)
                                    .d(key::REQUEST_ID, requestId.c_str())
                                    .d(key::DEVICE_COUNT, devices.size())
                                    .d(key::RESULT_COUNT, results.size()));
  return results;
}

void ApplianceDriverReachabilityChecker::updateResultWithDiscoveredDevice(
    const DiscoveredDevice& device, ResultTable& results) const {
  const auto stored = results.find(device.endpointId);
  if (stored == results.end()) {
    return;
  }
  if (!isSupportedAdapter(device.adapterName)) {
    logChecker(LogPriority::DEBUG, LogBuilder(label::UPDATE_RESULT_WITH_DISCOVERED_DEVICE, nullptr)
                                       .d(key::ENDPOINT_ID, device.endpointId.c_str())
                                       .d(key::ADAPTER_NAME, device.adapterName.c_str())
                                       .d(key::REASON, reason::UNSUPPORTED_ADAPTER));
    return;
  }

  // The device's data replaces the result's, except an empty entity id or
  // capability set, which keep what the result had.
  ReachabilityCheckResult& result = stored->second;
  if (!device.entityId.empty()) {
    result.entityId = device.entityId;
  }
  result.adapterName = device.adapterName;
  result.isReachable = device.isReachable;
  if (!device.capabilities.empty()) {
    result.capabilities = capabilitiesOf(device);
  }
  result.driverType = device.driverType;
}

bool ApplianceDriverReachabilityChecker::isSupportedAdapter(const std::string& adapterName) const {
  return SUPPORTED_ADAPTERS.count(adapterName) != 0;
}

bool ApplianceDriverReachabilityChecker::validateCallbackParams(
    const std::string& callbackId, const UpdateCallback& callback) const {
  if (callbackId.empty()) {
    logChecker(LogPriority::ERROR, LogBuilder(label::VALIDATE_CALLBACK_PARAMS, nullptr)
                                       .d(key::REASON, reason::EMPTY_CALLBACK_ID));
    return false;
  }
  if (!callback) {
    logChecker(
        LogPriority::ERROR,
        LogBuilder(label::VALIDATE_CALLBACK_PARAMS, nullptr).d(key::REASON, reason::NULL_CALLBACK));
    return false;
  }
  return true;
}

bool ApplianceDriverReachabilityChecker::isCallbackIdRegistered(
    const std::string& callbackId) const {
  const std::lock_guard<std::mutex> lock(callbackMutex);
  return registeredCallbackIds.count(callbackId) != 0;
}

bool ApplianceDriverReachabilityChecker::registerReachabilityUpdateCallback(
    const std::string& callbackId, UpdateCallback callback) {
  logChecker(LogPriority::DEBUG, LogBuilder(label::REGISTER_REACHABILITY_UPDATE_CALLBACK, nullptr)
                                     .d(key::CALLBACK_ID, callbackId.c_str()));
  if (!validateCallbackParams(callbackId, callback)) {
    return false;
  }
  if (isCallbackIdRegistered(callbackId)) {
    logChecker(LogPriority::WARN, LogBuilder(label::REGISTER_REACHABILITY_UPDATE_CALLBACK, nullptr)
                                      .d(key::REASON, reason::DUPLICATE_CALLBACK_ID));
    return false;
  }

  // The driver is called without the lock: two registrations of one id may
  // both reach it, and the set then holds the id once.
  if (!driver.subscribeStateChanges(
          {}, callbackId, createStateChangeCallbackWrapper(std::move(callback)), nullptr)) {
    logChecker(LogPriority::ERROR, LogBuilder(label::REGISTER_REACHABILITY_UPDATE_CALLBACK, nullptr)
                                       .d(key::CALLBACK_ID, callbackId.c_str())
                                       .d(key::REASON, reason::SUBSCRIPTION_FAILED));
    return false;
  }

  const std::lock_guard<std::mutex> lock(callbackMutex);
  registeredCallbackIds.insert(callbackId);
  logChecker(LogPriority::INFO, LogBuilder(label::REGISTER_REACHABILITY_UPDATE_CALLBACK, nullptr)
                                    .d(key::CALLBACK_ID, callbackId.c_str())
                                    .d(key::STATUS, status::REGISTERED));
  return true;
}

bool ApplianceDriverReachabilityChecker::unregisterReachabilityUpdateCallback(
    const std::string& callbackId) {
  logChecker(LogPriority::DEBUG, LogBuilder(label::UNREGISTER_REACHABILITY_UPDATE_CALLBACK, nullptr)
                                     .d(key::CALLBACK_ID, callbackId.c_str()));
  if (callbackId.empty()) {
    logChecker(LogPriority::ERROR,
               LogBuilder(label::UNREGISTER_REACHABILITY_UPDATE_CALLBACK, nullptr)
                   .d(key::REASON, reason::EMPTY_CALLBACK_ID));
    return false;
  }
  if (!isCallbackIdRegistered(callbackId)) {
    logChecker(LogPriority::WARN,
               LogBuilder(label::UNREGISTER_REACHABILITY_UPDATE_CALLBACK, nullptr)
                   .d(key::REASON, reason::CALLBACK_NOT_FOUND)
                   .d(key::CALLBACK_ID, callbackId.c_str()));
    return false;
  }

  // A refused cancellation keeps the id registered so that the caller may
  // try again.
  if (!driver.unsubscribeStateChanges(callbackId)) {
    logChecker(LogPriority::WARN,
               LogBuilder(label::UNREGISTER_REACHABILITY_UPDATE_CALLBACK, nullptr)
                   .d(key::CALLBACK_ID, callbackId.c_str())
                   .d(key::REASON, reason::UNSUBSCRIPTION_FAILED));
    return false;
  }

  const std::lock_guard<std::mutex> lock(callbackMutex);
  registeredCallbackIds.erase(callbackId);
  logChecker(LogPriority::INFO, LogBuilder(label::UNREGISTER_REACHABILITY_UPDATE_CALLBACK, nullptr)
                                    .d(key::CALLBACK_ID, callbackId.c_str())
                                    .d(key::STATUS, status::UNREGISTERED));
  return true;
}

IUnifiedApplianceDriver::StateChangeCallback
ApplianceDriverReachabilityChecker::createStateChangeCallbackWrapper(
    UpdateCallback callback) const {
  // Runs on the driver's thread; it touches no checker state and takes no lock.
  return [callback = std::move(callback)](const StateChangeEvent& event) {
    logChecker(LogPriority::DEBUG, LogBuilder(LAMBDA_FUNCTION, label::STATE_CHANGE_CALLBACK)
                                       .d(key::ENDPOINT_ID, event.endpointId.c_str())
                                       .d(key::NAMESPACE, event.namespace_.c_str())
                                       .d(key::PROPERTY_NAME, event.propertyName.c_str())
                                       .d(key::VALUE, event.value.c_str()));
    if (event.namespace_ != ENDPOINT_HEALTH_NAMESPACE ||
        event.propertyName != CONNECTIVITY_PROPERTY) {
      logChecker(LogPriority::DEBUG, LogBuilder(LAMBDA_FUNCTION, label::STATE_CHANGE_CALLBACK)
                                         .d(key::REASON, reason::NOT_CONNECTIVITY_EVENT));
      return;
    }

    // The value is either bare or JSON text with the state in double quotes.
    const bool reachable = event.value == CONNECTIVITY_OK_VALUE ||
                           event.value.find(QUOTED_OK_VALUE) != std::string::npos;
    const ReachabilityCheckResult result(event.endpointId, "", "", reachable, CapabilitySet(),
                                         ApplianceDriverType::NO_DRIVER);
    logChecker(LogPriority::INFO, LogBuilder(LAMBDA_FUNCTION, label::STATE_CHANGE_CALLBACK)
                                      .d(key::ENDPOINT_ID, event.endpointId.c_str())
                                      .d(key::IS_REACHABLE, boolText(reachable))
                                      .d(key::ACTION, action::INVOKING_CALLBACK));
    callback(result);
  };
}

}  // namespace veranda::reachabilityCache
