#include "store/ChangeOrigin.h"

namespace veranda::reachabilityCache {
namespace {

thread_local ChangeOrigin tOrigin = ChangeOrigin::HOST;

}  // namespace

ChangeOrigin currentChangeOrigin() { return tOrigin; }

ChangeOriginScope::ChangeOriginScope(ChangeOrigin origin) : previous_(tOrigin) { tOrigin = origin; }

ChangeOriginScope::~ChangeOriginScope() { tOrigin = previous_; }

}  // namespace veranda::reachabilityCache
