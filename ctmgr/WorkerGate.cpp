#include "ctmgr/WorkerGate.h"

#include <utility>

WorkerGate::Pass WorkerGate::hold() {
  const std::lock_guard<std::mutex> lock(mutex_);
  ++passes_;
  return Pass(shared_from_this());
}

std::optional<WorkerGate::Pass> WorkerGate::enter() {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (closed_) return std::nullopt;
  ++passes_;
  return Pass(shared_from_this());
}

void WorkerGate::closeAndWait() {
  std::unique_lock<std::mutex> lock(mutex_);
  closed_ = true;
  lastPassBack_.wait(lock, [this] { return passes_ == 0; });
}

void WorkerGate::leave() {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (--passes_ == 0) lastPassBack_.notify_all();
}
