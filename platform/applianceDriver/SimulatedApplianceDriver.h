// A simulated appliance driver: a home of devices behind the driver interface,
// answering on a thread of its own, by the stand-ins' clock (virtual time in a
// test that asks for it). It is what getUnifiedApplianceDriver()
// returns on a host build, the test double of the cache's own tests and the
// engine of the reachability simulator.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "applianceDriver/ApplianceDriver.h"

namespace veranda::applianceDriver {

// Thread safety: every member may be called from any thread, the driver's own
// thread (inside a callback) included. Callbacks run one at a time on the
// driver's thread, never under a lock of the driver.
//
// Lifetime: shutdown() (also run by the destructor) drops every answer not yet
// delivered and waits for a running callback to return, so that whoever handed
// callbacks in may then destroy what they capture.
class SimulatedApplianceDriver : public IUnifiedApplianceDriver {
 public:
  SimulatedApplianceDriver();
  ~SimulatedApplianceDriver() override;

  SimulatedApplianceDriver(const SimulatedApplianceDriver&) = delete;
  SimulatedApplianceDriver& operator=(const SimulatedApplianceDriver&) = delete;

  // ---- The home ----

  // Adds the device, or replaces the one with the same endpoint id. Replacing
  // a device with a different reachable flag announces the change as
  // setReachable() does.
  void upsertDevice(DiscoveredDevice device);

  // Takes the device out of the home; later answers no longer report it.
  // Returns false for an unknown endpoint id.
  bool removeDevice(const std::string& endpointId);

  // Sets the device's reachable flag. When the flag changes, every
  // subscription receives a "Veyra.EndpointHealth" / "connectivity" event with
  // the value OK or UNREACHABLE (quoted JSON text when
  // setJsonConnectivityValues(true)). Returns false for an unknown endpoint id.
  bool setReachable(const std::string& endpointId, bool reachable);

  // A copy of every device of the home, in endpoint id order.
  std::vector<DiscoveredDevice> devices() const;

  // Delivers `event` to every subscription, on the driver's thread, after the
  // events published before it.
  void publishStateChange(StateChangeEvent event);

  // ---- Behaviour ----

  // Each answer to getReachableDevices waits a time drawn uniformly from
  // [minimum, maximum] (default: no wait); a wait too long for the clock's
  // range lasts as long as it can. Answers are delivered by due time, equal
  // due times in the order accepted; events go ahead of every answer.
  void setAnswerLatency(std::chrono::milliseconds minimum, std::chrono::milliseconds maximum);
  // Each answer waits exactly `latency`.
  void setAnswerLatency(std::chrono::milliseconds latency) { setAnswerLatency(latency, latency); }

  // While `hold` is true, every answer accepted is kept instead of
  // delivered, until releaseHeldAnswers(): a driver that answers late, after
  // the cache is gone, or never, as the test chooses. Held answers count in
  // pendingAnswers() but keep neither waitUntilIdle() nor virtual time
  // waiting; shutdown() drops them.
  void setHoldAnswers(bool hold);
  // Delivers every held answer on the driver's thread, at once and in the
  // order accepted, each with the home as it stands at delivery. Returns how
  // many there were.
  std::size_t releaseHeldAnswers();

  // Seeds the latency draws, for replayable runs.
  void setRandomSeed(uint32_t seed);

  // Makes the driver refuse (answer false to) getReachableDevices().
  void setRefuseRequests(bool refuse);
  // Makes the driver refuse subscribeStateChanges().
  void setRefuseSubscriptions(bool refuse);
  // Makes the driver refuse unsubscribeStateChanges(); the subscription stays.
  void setRefuseUnsubscriptions(bool refuse);

  // Writes connectivity values as JSON text ("OK" in double quotes).
  void setJsonConnectivityValues(bool json);

  // ---- Observation and teardown ----

  // Waits until every accepted request has been answered and every published
  // event delivered, or until `timeout` passes. True when idle. Must not be
  // called on the driver's thread.
  bool waitUntilIdle(std::chrono::milliseconds timeout) const;

  // Refuses every later request and subscription, drops the answers and
  // events not yet delivered, and waits for a running callback to return
  // (unless called on the driver's thread). Final: the driver stays shut down.
  void shutdown();

  // Accepted requests whose answer has not been delivered yet.
  std::size_t pendingAnswers() const;
  // Requests accepted so far, refused ones not counted.
  uint64_t acceptedRequests() const;
  // Subscriptions active now.
  std::size_t subscriptionCount() const;

  // ---- IUnifiedApplianceDriver ----

  // Answers with every device of the home, each with its reachable flag, as
  // the home stands when the answer is delivered.
  bool getReachableDevices(const std::string& requestId, DevicesCallback onDevices) override;

  // Subscriptions receive events of every endpoint; `endpointIds` is ignored.
  // A subscription id already in use is refused.
  bool subscribeStateChanges(const std::vector<std::string>& endpointIds,
                             const std::string& subscriptionId, StateChangeCallback onStateChange,
                             SubscriptionErrorCallback onSubscriptionError) override;

  // As the interface says: a delivery to the subscription that is running on
  // another thread is waited for, and none starts after true. On the driver's
  // thread (inside any callback) it returns at once.
  bool unsubscribeStateChanges(const std::string& subscriptionId) override;

 private:
  class Engine;
  std::shared_ptr<Engine> engine_;  // shared with its queued tasks
};

// The process-wide simulated driver (the one getUnifiedApplianceDriver()
// returns on a host build).
SimulatedApplianceDriver& getSimulatedApplianceDriver();

}  // namespace veranda::applianceDriver
