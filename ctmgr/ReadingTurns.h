// Who reads the conntrack table next.
#pragma once

#include "ctmgr/Mutex.h"

namespace ctmgr {

/// One flush at a time reads the table. An event that asks for a turn waits for the reading that
/// goes on, and for no other: clean-ups let it pass.
///
/// Thread: any.
class ZAN_CAPABILITY("turn") ReadingTurns {
 public:
  enum class Asker { kEvent, kCleanUp };

  /// Returns when it is the caller's turn. ReadingTurn calls both.
  void begin(Asker asker);
  void end();

  /// How many wait for a turn now.
  [[nodiscard]] unsigned int waiting();

 private:
  Mutex mutex_;
  Condition eventsTurn_;
  Condition cleanUpsTurn_;
  bool taken_ ZAN_GUARDED_BY(mutex_) = false;
  unsigned int eventsWaiting_ ZAN_GUARDED_BY(mutex_) = 0;
  unsigned int cleanUpsWaiting_ ZAN_GUARDED_BY(mutex_) = 0;
};

/// A turn that lasts as long as it lives.
class ZAN_SCOPED_CAPABILITY ReadingTurn {
 public:
  ReadingTurn(ReadingTurns& turns, ReadingTurns::Asker asker) ZAN_ACQUIRE(turns) : turns_(turns) {
    turns_.begin(asker);
  }
  ~ReadingTurn() ZAN_RELEASE() { turns_.end(); }
  ReadingTurn(const ReadingTurn&) = delete;
  ReadingTurn& operator=(const ReadingTurn&) = delete;

 private:
  ReadingTurns& turns_;
};

}  // namespace ctmgr
