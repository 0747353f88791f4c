// The plug-in's log lines, as calls of the framework's log object.
#pragma once

#include <cstdint>

#include "host/Agreement.h"
#include "host/ZanMsg.h"

/// One log line. A macro, so that the compiler checks every format against its arguments.
#define ZAN_LOG(module, level, format, ...)                                \
  do {                                                                     \
    if (ZanMsg* zanLogObject = ZanMsg::zan_log_class_ptr) {                \
      zanLogObject->log(level, module, format __VA_OPT__(, ) __VA_ARGS__); \
    }                                                                      \
  } while (false)

/// The line with which the main objects announce construction, destruction and a few entries.
#define ZAN_LOG_ENTRY(module, signature, line) ZAN_LOG(module, kLogTrace, "%s:%d", signature, line)

namespace ctmgr {

/// The 32-bit word that a "0x%x" conversion shows of a pointer: all of it on the target, the low
/// half on 64-bit machines.
[[nodiscard]] inline std::uint32_t logWord(const void* pointer) {
  return static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(pointer));
}

}  // namespace ctmgr
