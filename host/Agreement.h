// What a plug-in and its host must agree on beyond the framework's own declarations. Includes
// nothing of host/: where a device's headers replace the others here, this one stays.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

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

/// What the idle-timer commands carry: the rules make the kernel create a timer CT_<interface>
/// (iptables-extensions(8), IDLETIMER).
inline constexpr char kIdleTimerLabelPrefix[] = "CT";
inline constexpr char kIdleTimerTarget[] = "IDLETIMER";

/// Status of the modem's link, in dormancy events and ZanRix::getDormancyStatus().
inline constexpr std::int32_t kLinkDormant = 1;
inline constexpr std::int32_t kLinkActive = 2;

/// Status in a filtering event.
inline constexpr std::int32_t kFilteringEnded = 1;

/// Payload of the tethering event.
inline constexpr std::int32_t kTetheringOn = 1;
inline constexpr std::int32_t kTetheringOff = 0;

/// What ZanRix::installFilters() and installListenFilters() return on success.
inline constexpr int kModemSuccess = 1;

/// Payload of events 27 and 28. Event 27 names hotspot clients by MAC address text
/// ("%02x:%02x:%02x:%02x:%02x:%02x"), event 28 gives IP addresses in text form.
using ZanDsmTextList = std::vector<std::string>;

/// Where the second text of a record's character field starts; the first is at its start.
inline constexpr std::size_t kWwanSecondTextOffset = 62;

/// Whether |command| is one of the four of ZAN_COMMANDS, 8 to 11, that carry rule arguments.
[[nodiscard]] constexpr bool isIdleTimerCommand(std::int32_t command) {
  return (command & ~3) == 8;
}

/// How far behind the end of a message a decoder may read, in bytes. The neighbour decoder walks
/// attributes with a budget 12 bytes larger than what they occupy and copies the 126 address
/// bytes of a sockaddr_storage from wherever a destination attribute's payload starts.
inline constexpr std::size_t kNetlinkReceiveSlack = 12 + 126;

/// Size of a property value with its NUL, in bytes (PROP_VALUE_MAX of <sys/system_properties.h>).
inline constexpr std::size_t kPropertyValueMax = 92;
