// When the plug-in's deletion workers have done their work.
#pragma once

#include <memory>

#include "base/Patience.h"
#include "ctmgr/ZanConnTrackMgr.h"

/// What a manager keeps to itself.
struct Deletions : ZanConnTrackMgr {
  /// Whether no deletion worker of the present manager works.
  static bool rest() {
    auto& deleter = gConnTrackMgr->*(&Deletions::deleter);
    Mutex& mutex = gConnTrackMgr->*(&Deletions::listMutex);
    const MutexLock lock(mutex);
    return !(gConnTrackMgr->*(&Deletions::listsWait)) && deleter.use_count() == 1;
  }

  /// What only the present manager's deletions keep alive, once it has gone.
  static std::weak_ptr<ConntrackDeleter> handle() {
    return gConnTrackMgr == nullptr ? nullptr : gConnTrackMgr->*(&Deletions::deleter);
  }
};

/// deinit_ct_mgr(); returns its result when the deletions that go on after it have ended.
inline int stopAndAwaitDeletions() {
  const auto deletions = Deletions::handle();
  const int result = deinit_ct_mgr();
  static_cast<void>(base::eventually([&] { return deletions.expired(); }));
  return result;
}
