// Declarations of the appliance driver library: the process-wide driver that
// discovers and controls devices over the home's adapters. The library is a
// closed platform component; this header is all that the cache compiles
// against. On a host build the driver is the simulated one of
// SimulatedApplianceDriver.h.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

namespace veranda::applianceDriver {

// The kind of driver that reported a device. Only NATIVE or CONNECTED (0, 1)
// make an endpoint reachable.
enum class ApplianceDriverType : int32_t {
  NATIVE = 0,
  CONNECTED = 1,
  // Records that no driver stands behind: an endpoint pushed in by the host,
  // one the driver did not find, a connectivity change.
  NO_DRIVER = 2,
  // The former name of NO_DRIVER.
  UNKNOWN [[deprecated("use ApplianceDriverType::NO_DRIVER")]] = NO_DRIVER,
};

// Identity hash: a driver type hashes to its numeric value.
struct ApplianceDriverTypeHash {
  // The type's numeric value.
  std::size_t operator()(ApplianceDriverType type) const noexcept {
    return static_cast<std::size_t>(type);
  }
};

// One capability of a device: (name, qualifier).
using DeviceCapability = std::pair<std::string, std::string>;

// Hash of both parts of a capability; swapping them gives a different hash.
struct DeviceCapabilityHash {
  // Combines the hashes of name and qualifier.
  std::size_t operator()(const DeviceCapability& capability) const noexcept {
    return std::hash<std::string>{}(capability.first) ^
           (std::hash<std::string>{}(capability.second) << 1);
  }
};

// A device that the driver found.
struct DiscoveredDevice {
  std::string endpointId;    // the endpoint's id in the driver
  std::string entityId;      // the entity it serves, as the driver knows it
  std::string adapterName;   // the adapter that reaches it
  std::string friendlyName;  // not read by the cache
  bool isReachable = false;  // whether the driver reaches it now
  // What the device offers through this driver.
  std::unordered_set<DeviceCapability, DeviceCapabilityHash> capabilities;
  ApplianceDriverType driverType = ApplianceDriverType::NO_DRIVER;  // the driver that found it
};

// A change of one property of one endpoint.
struct StateChangeEvent {
  std::string endpointId;  // the endpoint whose property changed
  // The interface namespace; the driver library's name for the field.
  std::string namespace_;    // NOLINT(readability-identifier-naming)
  std::string instance;      // not read by the cache
  std::string propertyName;  // the property within the namespace
  std::string value;         // the new value, as text
};

// The driver. Callbacks run on the driver's own threads.
class IUnifiedApplianceDriver {
 public:
  // Receives the devices of one discovery.
  using DevicesCallback = std::function<void(const std::vector<DiscoveredDevice>&)>;
  // Receives one property change.
  using StateChangeCallback = std::function<void(const StateChangeEvent&)>;
  // Told the id of a subscription that failed.
  using SubscriptionErrorCallback = std::function<void(const std::string& subscriptionId)>;

  virtual ~IUnifiedApplianceDriver() = default;

  // Starts discovery of the devices reachable now. On true, `onDevices` is
  // called once, later, on a driver thread; on false it is never called.
  virtual bool getReachableDevices(const std::string& requestId, DevicesCallback onDevices) = 0;

  // Further driver operations that the cache never calls; their default
  // bodies let a test double implement only the three operations it needs.
  virtual bool setDeviceState(const std::string& /*endpointId*/, const std::string& /*namespace_*/,
                              const std::string& /*propertyName*/, const std::string& /*value*/) {
    return false;
  }
  // Asks the driver to read one device's state again.
  virtual bool refreshDevice(const std::string& /*endpointId*/) { return false; }

  // Subscribes to property changes of `endpointIds` (all endpoints when the
  // list is empty). On true, `onStateChange` is called on a driver thread for
  // every change until the subscription is cancelled.
  virtual bool subscribeStateChanges(const std::vector<std::string>& endpointIds,
                                     const std::string& subscriptionId,
                                     StateChangeCallback onStateChange,
                                     SubscriptionErrorCallback onSubscriptionError) = 0;

  // Cancels a subscription. After true, no callback of the subscription is
  // running on another thread and none will start, not even for a change made
  // before the call: what the callbacks capture may then be destroyed. Called
  // from inside one of the subscription's own callbacks it returns without
  // waiting for that callback, which finishes after the call. After false the
  // subscription stays as it was.
  virtual bool unsubscribeStateChanges(const std::string& subscriptionId) = 0;
};

// The process-wide driver; it lives as long as the process.
IUnifiedApplianceDriver& getUnifiedApplianceDriver();

}  // namespace veranda::applianceDriver
