#include "guard/CallbackGate.h"

namespace veranda::reachabilityCache {

CallbackGate::Pass::Pass(CallbackGate& gate) : gate_(gate.enter() ? &gate : nullptr) {}

CallbackGate::Pass::~Pass() {
  if (gate_ != nullptr) {
    gate_->leave();
  }
}

bool CallbackGate::enter() {
  MutexLock lock(mutex_);
  if (closed_) {
    return false;
  }
  ++passesByThread_[std::this_thread::get_id()];
  return true;
}

void CallbackGate::leave() {
  MutexLock lock(mutex_);
  const auto own = passesByThread_.find(std::this_thread::get_id());
  if (--own->second == 0) {
    passesByThread_.erase(own);
  }
  changed_.notify_all();
}

void CallbackGate::close() {
  MutexLock lock(mutex_);
  closed_ = true;
  const std::thread::id self = std::this_thread::get_id();
  const bool inside = passesByThread_.count(self) != 0;
  if (inside) {
    closingInside_.insert(self);
    changed_.notify_all();  // another closer inside a callback stops waiting for this one
  }
  while (blockingPassesLocked(self, inside) != 0) {
    changed_.wait(mutex_);
  }
  closingInside_.erase(self);
}

bool CallbackGate::isClosed() const {
  MutexLock lock(mutex_);
  return closed_;
}

std::size_t CallbackGate::blockingPassesLocked(std::thread::id self, bool selfInside) const {
  std::size_t blocking = 0;
  for (const auto& [thread, passes] : passesByThread_) {
    const bool closingToo = selfInside && closingInside_.count(thread) != 0;
    blocking += thread != self && !closingToo ? passes : 0;
  }
  return blocking;
}

}  // namespace veranda::reachabilityCache
