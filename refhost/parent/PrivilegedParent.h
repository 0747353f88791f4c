// Splits the host into a process that keeps the privilege and one that runs the plug-in.
#pragma once

#include <functional>
#include <string>

#include "refhost/framework/HostLog.h"

namespace parent {

/// What the process with the plug-in gets from its parent; -1 for what there is not.
struct Descriptors {
  int channel;  ///< the command channel
  int control;  ///< the listening socket at which it takes commands
};

/// Forks. The parent, which is the process that was started, serves the command channel
/// (host/ZanCommands.h), hands SIGINT and SIGTERM on to the child and ends when the child has
/// ended, with its exit code (128 + signal when one killed it). The child drops its privileges
/// (refhost/parent/Privileges.h), runs |host| and ends with what |host| returns; it outlives a
/// parent that is killed, and sees the channel hang up then.
///
/// Idle-timer rules that the channel asked for are gone once both have ended, in whatever way.
///
/// The parent makes the control socket |controlPath| (refhost/parent/ControlSocket.h), unless that
/// is empty, and removes it in the end.
///
/// |openLog| is called in the processes that stay privileged. Returns the exit code, in the parent
/// and the child. Call it before there are threads.
int runUnderPrivilegedParent(const framework::OpenLog& openLog, int logLevel,
                             const std::string& controlPath,
                             const std::function<int(Descriptors)>& host);

}  // namespace parent
