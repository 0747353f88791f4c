// Keeps detached workers away from a manager that has gone.
#pragma once

#include <memory>
#include <optional>

#include "ctmgr/Mutex.h"

namespace ctmgr {

/// Shared by a manager and its workers, and outlives the manager with the last of them. A worker
/// touches the manager only while it holds a Pass; the manager's destructor closes the gate and
/// waits for the passes that are out. None is held over a sleep or a call of the netlink socket.
///
/// Thread: any.
class WorkerGate : public std::enable_shared_from_this<WorkerGate> {
 public:
  /// Goes back when it dies.
  class Pass {
   public:
    explicit Pass(std::shared_ptr<WorkerGate> gate) : held_(std::move(gate)) {}
    Pass(Pass&&) = default;
    Pass& operator=(Pass&&) = delete;
    ~Pass() { giveBack(); }

    void giveBack() {
      if (held_) held_->leave();
      held_.reset();
    }

   private:
    std::shared_ptr<WorkerGate> held_;
  };

  /// A pass for a worker that is about to be started by somebody who may touch the manager, as
  /// the event thread and holders of a pass may.
  [[nodiscard]] Pass hold();

  /// A pass for a worker that has slept; none once the gate is closed.
  [[nodiscard]] std::optional<Pass> enter();

  /// Gives out no more passes to sleepers and returns when every pass is back.
  void closeAndWait();

 private:
  void leave();

  Mutex mutex_;
  Condition lastPassBack_;
  unsigned int passes_ ZAN_GUARDED_BY(mutex_) = 0;
  bool closed_ ZAN_GUARDED_BY(mutex_) = false;
};

}  // namespace ctmgr
