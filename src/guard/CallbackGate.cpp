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
  while (mustWaitLocked(self, inside)) {
    changed_.wait(mutex_);
  }
  closingInside_.erase(self);
}

bool CallbackGate::isClosed() const {
  MutexLock lock(mutex_);
  return closed_;
}

bool CallbackGate::mustWaitLocked(std::thread::id self, bool selfInside) const {
  for (const auto& entry : passesByThread_) {
    const bool closingToo = selfInside && closingInside_.count(entry.first) != 0;
    if (entry.first != self && !closingToo) {
      return true;
    }
  }
  return false;
}

}  // namespace veranda::reachabilityCache
