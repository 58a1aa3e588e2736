// The reachability checker over the appliance driver.
#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "applianceDriver/ApplianceDriver.h"
#include "reachabilityCache/EndpointInfo.h"
#include "reachabilityCache/Export.h"
#include "reachabilityCache/IReachabilityChecker.h"
#include "reachabilityCache/ReachabilityCheckResult.h"

namespace veranda::reachabilityCache {

// Checks batches of endpoints by asking the driver for the devices it reaches,
// and turns the driver's connectivity events into results for registered
// update callbacks.
//
// Thread safety: every operation may be called from any thread. Callbacks run
// on the driver's threads, never under the checker's lock.
//
// Lifetime: the driver is borrowed and must outlive the checker. Work handed to
// the driver refers to the checker, so the checker must outlive every request
// the driver has accepted and not yet answered, and every update callback must
// be unregistered before the checker is destroyed.
class REACHABILITY_CACHE_EXPORT ApplianceDriverReachabilityChecker : public IReachabilityChecker {
 public:
  // The adapters whose devices count; names are compared exactly.
  static const std::unordered_set<std::string> SUPPORTED_ADAPTERS;
  static const std::string ENDPOINT_HEALTH_NAMESPACE;  // "Veyra.EndpointHealth"
  static const std::string CONNECTIVITY_PROPERTY;      // "connectivity"
  static const std::string CONNECTIVITY_OK_VALUE;      // "OK"

  // Uses the process-wide driver.
  ApplianceDriverReachabilityChecker();
  // Uses `driver`, which the caller keeps alive.
  explicit ApplianceDriverReachabilityChecker(applianceDriver::IUnifiedApplianceDriver& driver);
  ~ApplianceDriverReachabilityChecker() override;

  ApplianceDriverReachabilityChecker(const ApplianceDriverReachabilityChecker&) = delete;
  ApplianceDriverReachabilityChecker& operator=(const ApplianceDriverReachabilityChecker&) = delete;

  // Reports every requested endpoint once: reachable with the driver's data
  // when a device on a supported adapter stands behind it, otherwise
  // unreachable with the requested data. The callback runs on the driver's
  // thread (on the caller's thread, at once, for an empty batch).
  bool checkReachability(const std::vector<EndpointInfo>& endpoints, const std::string& requestId,
                         ResultsCallback callback) override;

  // Subscribes with the driver under `callbackId`; only connectivity events
  // reach `callback`, as results without entity id.
  bool registerReachabilityUpdateCallback(const std::string& callbackId,
                                          UpdateCallback callback) override;
  bool unregisterReachabilityUpdateCallback(const std::string& callbackId) override;

 private:
  // Sees which callback ids the checker holds while the driver is called.
  friend class ApplianceDriverReachabilityCheckerTestPeer;

  // The requested endpoints of one check, kept until the driver answers.
  class CheckRequest;
  // The table matching the driver's devices to the requested endpoints.
  class ResultTable;

  // Building blocks of the operations above.
  REACHABILITY_CACHE_NO_EXPORT void buildEndpointLookupMap(
      const std::vector<EndpointInfo>& endpoints, CheckRequest& request) const;
  REACHABILITY_CACHE_NO_EXPORT std::vector<ReachabilityCheckResult> processDiscoveredDevices(
      const std::vector<applianceDriver::DiscoveredDevice>& devices, const CheckRequest& request,
      const std::string& requestId) const;
  REACHABILITY_CACHE_NO_EXPORT void updateResultWithDiscoveredDevice(
      const applianceDriver::DiscoveredDevice& device, ResultTable& results) const;
  REACHABILITY_CACHE_NO_EXPORT bool isSupportedAdapter(const std::string& adapterName) const;
  REACHABILITY_CACHE_NO_EXPORT bool validateCallbackParams(const std::string& callbackId,
                                                           const UpdateCallback& callback) const;
  REACHABILITY_CACHE_NO_EXPORT bool isCallbackIdRegistered(const std::string& callbackId) const;
  REACHABILITY_CACHE_NO_EXPORT applianceDriver::IUnifiedApplianceDriver::StateChangeCallback
  createStateChangeCallbackWrapper(UpdateCallback callback) const;

  // Guarded by callbackMutex. A plain std::mutex, so that this header needs no
  // lock machinery of the library's; it has the size and alignment of the
  // annotated mutex it replaced, and the class layout is unchanged.
  std::unordered_set<std::string> registeredCallbackIds;
  mutable std::mutex callbackMutex;
  applianceDriver::IUnifiedApplianceDriver& driver;
};

}  // namespace veranda::reachabilityCache
