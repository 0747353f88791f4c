// What the plug-in's present manager keeps to itself.
#pragma once

#include <memory>
#include <string>

#include "ctmgr/ZanConnTrackMgr.h"
#include "tests/RecordingHost.h"

/// Thread: the test's own, between init_ct_mgr() and deinit_ct_mgr(); stop() and awaitDeletions()
/// at any time.
struct PresentManager : ZanConnTrackMgr {
  static ZanNetlinkMgr& neighbours() { return *(gConnTrackMgr->*(&PresentManager::netlinkMgr)); }
  static ZanIfConnTracker& tracker(const std::string& ifaceName) {
    return *(gConnTrackMgr->*(&PresentManager::ifTrackers)).at(ifaceName);
  }
  /// What it shares with its clean-ups.
  static std::shared_ptr<ctmgr::WorkerGate> gate() {
    return gConnTrackMgr->*(&PresentManager::workers);
  }

  /// Has it read |table| instead of the kernel's.
  static void read(const TableFile& table);

  /// Waits until no deletion worker of it works.
  static void awaitDeletions();

  /// deinit_ct_mgr(); returns its result when the deletions that go on after it have ended.
  static int stop();
};
