#include "ctmgr/WorkerGate.h"

namespace ctmgr {

WorkerGate::Pass WorkerGate::hold() {
  const MutexLock lock(mutex_);
  ++passes_;
  return Pass(shared_from_this());
}

std::optional<WorkerGate::Pass> WorkerGate::enter() {
  const MutexLock lock(mutex_);
  if (closed_) return std::nullopt;
  ++passes_;
  return Pass(shared_from_this());
}

void WorkerGate::closeAndWait() {
  const MutexLock lock(mutex_);
  closed_ = true;
  while (passes_ != 0) lastPassBack_.wait(mutex_);
}

void WorkerGate::leave() {
  const MutexLock lock(mutex_);
  if (--passes_ == 0) lastPassBack_.notifyAll();
}

}  // namespace ctmgr
