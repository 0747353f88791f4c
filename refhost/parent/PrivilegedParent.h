// Splits the host into a process that keeps the privilege and one that runs the plug-in.
#pragma once

#include <functional>

#include "refhost/framework/HostLog.h"

namespace parent {

/// Forks. The parent, which is the process that was started, serves the command channel
/// (host/ZanCommands.h), hands SIGINT and SIGTERM on to the child and ends when the child has
/// ended, with its exit code (128 + signal when one killed it). The child drops its privileges
/// (refhost/parent/Privileges.h), runs |host| with its end of the channel and ends with what |host|
/// returns; it outlives a parent that is killed, and sees the channel hang up then.
///
/// Idle-timer rules that the channel asked for are gone once both have ended, in whatever way.
///
/// |openLog| is called in the processes that stay privileged. Returns the exit code, in the parent
/// and the child. Call it before there are threads.
int runUnderPrivilegedParent(const framework::OpenLog& openLog, int logLevel,
                             const std::function<int(int channel)>& host);

}  // namespace parent
