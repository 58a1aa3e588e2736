// The external form of an endpoint: what the provider returns, what the
// checker is asked about and what queries answer.
#pragma once

#include <string>
#include <utility>

#include "reachabilityCache/CapabilityKey.h"

namespace veranda::reachabilityCache {

// An endpoint with every capability it offers, whichever driver reported it.
struct EndpointInfo {
  // Each argument fills the member of the same meaning.
  EndpointInfo(const std::string& endpoint, const std::string& entity, const std::string& adapter,
               CapabilitySet capabilitySet)
      : endpointId(endpoint),
        entityId(entity),
        adapterName(adapter),
        capabilities(std::move(capabilitySet)) {}

  std::string endpointId;      // the endpoint's id in the appliance driver
  std::string entityId;        // the entity it serves; may carry the entity id prefix
  std::string adapterName;     // the adapter that reaches it, e.g. "PROT_ZIGBEE-ADAPTER"
  CapabilitySet capabilities;  // every capability, whichever driver reported it
};

}  // namespace veranda::reachabilityCache
