// The reference host's own log lines, beside those of the plug-in.
#pragma once

#include <functional>
#include <memory>

#include "host/Agreement.h"
#include "host/ZanMsg.h"

namespace framework {

/// The reference host's module identifier.
inline constexpr int kHostModule = 1;

/// Makes the process's log object, which drops lines below |threshold| and lasts as long as it is
/// held.
using OpenLog = std::function<std::shared_ptr<ZanMsg>(int threshold)>;

/// One log line; a macro, so that the compiler checks the format against the arguments.
#define HOST_LOG(level, format, ...)                                                        \
  do {                                                                                      \
    if (ZanMsg* hostLogObject = ZanMsg::zan_log_class_ptr) {                                \
      hostLogObject->log(level, framework::kHostModule, format __VA_OPT__(, ) __VA_ARGS__); \
    }                                                                                       \
  } while (false)

}  // namespace framework
