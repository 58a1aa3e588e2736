// Fuzzes the checker's filter of state-change events: only connectivity
// events reach the callback, as results whose reachability follows the value.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "FuzzCheck.h"
#include "applianceDriver/ApplianceDriver.h"
#include "reachabilityCache/ApplianceDriverReachabilityChecker.h"

namespace {

using veranda::applianceDriver::ApplianceDriverType;
using veranda::applianceDriver::DiscoveredDevice;
using veranda::applianceDriver::IUnifiedApplianceDriver;
using veranda::applianceDriver::StateChangeEvent;
using veranda::reachabilityCache::ApplianceDriverReachabilityChecker;
using veranda::reachabilityCache::ReachabilityCheckResult;

// Keeps the callback of the one subscription, which the fuzzer calls with
// each event as the driver's thread would.
class SubscribedDriver : public IUnifiedApplianceDriver {
 public:
  bool getReachableDevices(
      const std::string& /*namespace*/,
      std::function<void(const std::vector<DiscoveredDevice>&)> /*onDevices*/) override {
    return false;
  }
  bool subscribeStateChanges(const std::vector<std::string>& /*endpointIds*/,
                             const std::string& /*subscriptionId*/,
                             std::function<void(const StateChangeEvent&)> onStateChange,
                             std::function<void(const std::string&)> /*onError*/) override {
    publish = std::move(onStateChange);
    return true;
  }
  bool unsubscribeStateChanges(const std::string& /*subscriptionId*/) override { return false; }

  std::function<void(const StateChangeEvent&)> publish;
};

// Most fields are either the text the filter looks for or anything at all.
std::string field(FuzzedDataProvider& input, const char* wanted) {
  return input.ConsumeBool() ? std::string(wanted) : input.ConsumeRandomLengthString(32);
}

bool containsQuotedOk(const std::string& value) {
  for (std::size_t i = 0; i + 4 <= value.size(); ++i) {
    if (value[i] == '"' && value[i + 1] == 'O' && value[i + 2] == 'K' && value[i + 3] == '"') {
      return true;
    }
  }
  return false;
}

}  // namespace

// NOLINTNEXTLINE(readability-identifier-naming): the name libFuzzer calls.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  static SubscribedDriver driver;
  static ApplianceDriverReachabilityChecker checker(driver);
  static std::vector<ReachabilityCheckResult> delivered;
  static const bool SUBSCRIBED = checker.registerReachabilityUpdateCallback(
      "fuzz", [](const ReachabilityCheckResult& result) { delivered.push_back(result); });
  FUZZ_CHECK(SUBSCRIBED);

  FuzzedDataProvider input(data, size);
  StateChangeEvent event;
  event.endpointId = input.ConsumeRandomLengthString(16);
  event.namespace_ = field(input, "Veyra.EndpointHealth");
  event.instance = input.ConsumeRandomLengthString(16);
  event.propertyName = field(input, "connectivity");
  event.value = input.ConsumeBool() ? "OK" : input.ConsumeRemainingBytesAsString();

  delivered.clear();
  driver.publish(event);

  const bool connectivity =
      event.namespace_ == "Veyra.EndpointHealth" && event.propertyName == "connectivity";
  FUZZ_CHECK(delivered.size() == (connectivity ? 1U : 0U));
  if (!connectivity) {
    return 0;
  }
  const ReachabilityCheckResult& result = delivered.front();
  FUZZ_CHECK(result.isReachable == (event.value == "OK" || containsQuotedOk(event.value)));
  FUZZ_CHECK(result.endpointId == event.endpointId);
  FUZZ_CHECK(result.entityId.empty() && result.adapterName.empty());
  FUZZ_CHECK(result.capabilities.empty());
  FUZZ_CHECK(result.driverType == ApplianceDriverType::NO_DRIVER);
  return 0;
}
