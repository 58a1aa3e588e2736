// What made the store change: told to the store's followers with every change.
#pragma once

#include <cstdint>

namespace veranda::reachabilityCache {

enum class ChangeOrigin : uint8_t {
  HOST,                // the host's own call, or anything outside the ones below
  PERIODIC_CHECK,      // a periodic cycle's results
  MANUAL_CHECK,        // a manual check's results
  CONNECTIVITY_EVENT,  // a connectivity event from the checker
  SWEEP,               // a cycle dropping endpoints that the provider no longer names
};

// The origin of the changes the calling thread makes; HOST unless a scope
// below says otherwise.
ChangeOrigin currentChangeOrigin();

// Sets the calling thread's origin for its lifetime and restores the previous
// one when it ends. Scopes nest.
class ChangeOriginScope {
 public:
  explicit ChangeOriginScope(ChangeOrigin origin);
  ~ChangeOriginScope();

  ChangeOriginScope(const ChangeOriginScope&) = delete;
  ChangeOriginScope& operator=(const ChangeOriginScope&) = delete;

 private:
  const ChangeOrigin previous_;
};

}  // namespace veranda::reachabilityCache
