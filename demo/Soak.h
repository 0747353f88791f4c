#pragma once

#include <chrono>
#include <cstdint>

#include "demo/DemoReport.h"
#include "lab/HostProcess.h"

namespace demo {

/// Both jobs of the system for minutes: hotspot clients, upstream addresses and a mobile link come
/// and go in a random order. Afterwards the kernel's table, the host's counters and log, and what
/// its process uses are checked.
struct Soak {
  /// The host, with its plug-in; log level and arguments are the soak's to set.
  lab::HostProcess::Options host;
  std::chrono::minutes length{2};
  /// Decides what happens and when, on any machine that keeps up.
  std::uint32_t seed = 0;

  /// Throws as Demo::run() does.
  void run(DemoReport& report) const;
};

}  // namespace demo
