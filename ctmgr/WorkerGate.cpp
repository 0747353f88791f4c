#include "ctmgr/WorkerGate.h"

#include <utility>

WorkerGate::Pass WorkerGate::hold() {
  const std::lock_guard<std::mutex> lock(mutex);
  ++passes;
  return Pass(shared_from_this());
}

std::optional<WorkerGate::Pass> WorkerGate::enter() {
  const std::lock_guard<std::mutex> lock(mutex);
  if (closed) return std::nullopt;
  ++passes;
  return Pass(shared_from_this());
}

void WorkerGate::closeAndWait() {
  std::unique_lock<std::mutex> lock(mutex);
  closed = true;
  lastPassBack.wait(lock, [this] { return passes == 0; });
}

void WorkerGate::leave() {
  const std::lock_guard<std::mutex> lock(mutex);
  if (--passes == 0) lastPassBack.notify_all();
}
