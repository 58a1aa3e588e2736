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
  ++passesHeld_;
  ++passesByThread_[std::this_thread::get_id()];
  return true;
}

void CallbackGate::leave() {
  MutexLock lock(mutex_);
  --passesHeld_;
  const auto own = passesByThread_.find(std::this_thread::get_id());
  if (--own->second == 0) {
    passesByThread_.erase(own);
  }
  passReturned_.notify_all();
}

void CallbackGate::close() {
  MutexLock lock(mutex_);
  closed_ = true;
  // This thread's own passes cannot return while it waits here.
  const auto own = passesByThread_.find(std::this_thread::get_id());
  const std::size_t ownPasses = own == passesByThread_.end() ? 0 : own->second;
  while (passesHeld_ > ownPasses) {
    passReturned_.wait(mutex_);
  }
}

bool CallbackGate::isClosed() const {
  MutexLock lock(mutex_);
  return closed_;
}

}  // namespace veranda::reachabilityCache
