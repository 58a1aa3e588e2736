// Names of capabilities and the set type that holds them.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <unordered_set>

namespace veranda::reachabilityCache {

// A capability: its name and the qualifier that tells apart two capabilities
// of the same name. Both fields are compared exactly.
struct CapabilityKey {
  std::string capability;  // the capability's name
  std::string qualifier;   // tells apart capabilities of one name; may be empty

  // Equal when both fields are.
  bool operator==(const CapabilityKey& other) const {
    return capability == other.capability && qualifier == other.qualifier;
  }
  // Different when either field is.
  bool operator!=(const CapabilityKey& other) const { return !(*this == other); }
};

// Hash of both fields; swapping them gives a different hash.
struct CapabilityKeyHash {
  // Combines the hashes of both fields.
  std::size_t operator()(const CapabilityKey& key) const noexcept {
    return std::hash<std::string>{}(key.capability) ^
           (std::hash<std::string>{}(key.qualifier) << 1);
  }
};

// A set of capabilities, each at most once.
using CapabilitySet =
    std::unordered_set<CapabilityKey, CapabilityKeyHash, std::equal_to<CapabilityKey>>;

}  // namespace veranda::reachabilityCache
