// Members that only those derived from a manager may touch.
#include "tests/PresentManager.h"

#include <unistd.h>

#include <utility>

#include "base/Patience.h"

namespace {

struct Utils : ZanConnTrackUtils {
  static constexpr auto kFd = &Utils::connTrackFd;
};

struct Manager : PresentManager {
  static int& tableFd() { return gConnTrackMgr->*(&Manager::connTrackUtils).*Utils::kFd; }
  static auto& deletions() { return gConnTrackMgr->*(&Manager::deleter); }
  static bool deletes() {
    ctmgr::Mutex& mutex = gConnTrackMgr->*(&Manager::listMutex);
    const ctmgr::MutexLock lock(mutex);
    return gConnTrackMgr->*(&Manager::listsWait) || deletions().use_count() > 1;
  }
};

}  // namespace

void PresentManager::read(const TableFile& table) {
  close(std::exchange(Manager::tableFd(), dup(table.fd())));
}

void PresentManager::awaitDeletions() {
  static_cast<void>(
      base::eventually([] { return gConnTrackMgr == nullptr || !Manager::deletes(); }));
}

int PresentManager::stop() {
  std::weak_ptr<ctmgr::ConntrackDeleter> deletions;
  if (gConnTrackMgr != nullptr) deletions = Manager::deletions();
  const int result = deinit_ct_mgr();
  static_cast<void>(base::eventually([&] { return deletions.expired(); }));
  return result;
}
