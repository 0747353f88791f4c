// The plug-in's log lines, as calls of the framework's log object.
#pragma once

#include <cstdint>

#include "host/ZanMsg.h"

/// Levels of the framework's log, as the plug-in uses them.
enum LogLevel : int {
  kLogTrace = 0,      ///< function entries, received events, each parsed line and request
  kLogUnhandled = 1,  ///< events nobody handles
  kLogNotice = 2,     ///< notable state
  kLogWarning = 3,    ///< bad callback arguments, set-up anomalies
  kLogError = 4       ///< failures to reach or parse the conntrack table and the like
};

/// Module identifiers of the framework's log.
inline constexpr int ZAN_LOG_MODULE_CT_MGR = 10409;  ///< manager, trackers, deletion, utilities
inline constexpr int ZAN_LOG_MODULE_CT_NET = 10401;  ///< conntrack parser and neighbour table

/// One log line. A macro, so that the compiler checks every format against its arguments.
#define ZAN_LOG(module, level, format, ...)                                \
  do {                                                                     \
    if (ZanMsg* zanLogObject = ZanMsg::zan_log_class_ptr) {                \
      zanLogObject->log(level, module, format __VA_OPT__(, ) __VA_ARGS__); \
    }                                                                      \
  } while (false)

/// The line with which the main objects announce construction, destruction and a few entries.
#define ZAN_LOG_ENTRY(module, signature, line) ZAN_LOG(module, kLogTrace, "%s:%d", signature, line)

/// The 32-bit word that a "0x%x" conversion shows of a pointer: all of it on the target, the low
/// half on 64-bit machines.
[[nodiscard]] inline std::uint32_t logWord(const void* pointer) {
  return static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(pointer));
}
