// Stands in for the platform's appliance driver library in the Android branch
// check: it defines the process-wide driver, which refuses every request.
#include <functional>
#include <string>
#include <vector>

#include "applianceDriver/ApplianceDriver.h"

namespace veranda::applianceDriver {
namespace {

class RefusingDriver : public IUnifiedApplianceDriver {
 public:
  bool getReachableDevices(
      const std::string& /*requestId*/,
      std::function<void(const std::vector<DiscoveredDevice>&)> /*onDevices*/) override {
    return false;
  }
  bool subscribeStateChanges(
      const std::vector<std::string>& /*endpointIds*/, const std::string& /*subscriptionId*/,
      std::function<void(const StateChangeEvent&)> /*onStateChange*/,
      std::function<void(const std::string&)> /*onSubscriptionError*/) override {
    return false;
  }
  bool unsubscribeStateChanges(const std::string& /*subscriptionId*/) override { return false; }
};

}  // namespace

IUnifiedApplianceDriver& getUnifiedApplianceDriver() {
  static RefusingDriver driver;
  return driver;
}

}  // namespace veranda::applianceDriver
