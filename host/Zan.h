// The framework's host object: what a plug-in is handed when it is loaded.
#pragma once

#include "host/ZanCom.h"
#include "host/ZanDsm.h"
#include "host/ZanRix.h"

/// Holds the services as members, in this order; a plug-in keeps references to the members
/// themselves. Lives from before init_ct_mgr() until after deinit_ct_mgr().
class Zan {
 public:
  /// Connected byte stream to the privileged parent process (host/ZanCommands.h); -1 when there is
  /// none. The process ignores SIGPIPE, so that a parent that has gone is an error of write(2).
  int commandChannelFd = -1;
  ZanCom zanCom;
  ZanDsm zanDsm;
  ZanRix zanRix;
};
