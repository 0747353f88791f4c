#include "ctmgr/ReadingTurns.h"

namespace ctmgr {

void ReadingTurns::begin(Asker asker) {
  const MutexLock lock(mutex_);
  if (asker == Asker::kEvent) {
    ++eventsWaiting_;
    while (taken_) eventsTurn_.wait(mutex_);
    --eventsWaiting_;
  } else {
    ++cleanUpsWaiting_;
    while (taken_ || eventsWaiting_ != 0) cleanUpsTurn_.wait(mutex_);
    --cleanUpsWaiting_;
  }
  taken_ = true;
}

void ReadingTurns::end() {
  const MutexLock lock(mutex_);
  taken_ = false;
  (eventsWaiting_ != 0 ? eventsTurn_ : cleanUpsTurn_).notifyOne();
}

unsigned int ReadingTurns::waiting() {
  const MutexLock lock(mutex_);
  return eventsWaiting_ + cleanUpsWaiting_;
}

}  // namespace ctmgr
