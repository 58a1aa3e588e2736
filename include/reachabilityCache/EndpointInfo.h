// The external form of an endpoint: what the provider returns, what the
// checker is asked about and what queries answer.
#pragma once

#include <string>
#include <utility>

#include "reachabilityCache/CapabilityKey.h"

namespace veranda::reachabilityCache {

struct EndpointInfo {
  EndpointInfo(const std::string& endpointId, const std::string& entityId,
               const std::string& adapterName, CapabilitySet capabilities)
      : endpointId(endpointId),
        entityId(entityId),
        adapterName(adapterName),
        capabilities(std::move(capabilities)) {}

  std::string endpointId;      // the endpoint's id in the appliance driver
  std::string entityId;        // the entity it serves; may carry the entity id prefix
  std::string adapterName;     // the adapter that reaches it, e.g. "PROT_ZIGBEE-ADAPTER"
  CapabilitySet capabilities;  // every capability, whichever driver reported it
};

}  // namespace veranda::reachabilityCache
