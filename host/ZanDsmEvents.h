// Data-service events and the records that travel with them.
//
// The layouts are the framework's binary contract; offsets are those of the 32-bit target, where
// a standard list is 12 bytes (libc++) and 4-byte aligned.
#pragma once

#include <cstdint>
#include <list>
#include <string>
#include <vector>

#include "host/Agreement.h"

/// Event identifiers of the data-service monitor that concern a plug-in. Signed and 32 bits wide.
enum ZanDsmEvent : std::int32_t {
  ZAN_DSM_EVENT_WWAN_STATUS = 2,       ///< payload: ZanDsmWwanStatusInfo
  ZAN_DSM_EVENT_TETHERING_STATE = 5,   ///< payload: std::int32_t, 1 = switched on, 0 = off
  ZAN_DSM_EVENT_SAP_CLIENTS = 27,      ///< payload: ZanDsmTextList, the complete client list
  ZAN_DSM_EVENT_UPSTREAM_IP_LOST = 28  ///< payload: ZanDsmTextList, the addresses just lost
};

/// Access point names an interface is up for. The framework knows more values than these.
enum ZanApnType : std::int32_t { ZAN_APN_TYPE_DEFAULT = 0 };

/// Connection status of a WWAN interface, in both records below. Other values exist.
enum ZanWwanStatus : std::uint32_t {
  ZAN_WWAN_STATUS_CONNECTED = 1,
  ZAN_WWAN_STATUS_DISCONNECTED = 4
};

/// Payload of event 2.
struct ZanDsmWwanStatusInfo {
  std::uint32_t status;  ///< offset 0: a ZanWwanStatus, or a value to ignore
  char ifaceName[108];   ///< offset 4: NUL-terminated kernel interface name, then host data
  std::list<ZanApnType> apnList;  ///< offset 112 on the target
};

/// What the monitor knows of one WWAN interface. 160 bytes on the target.
struct _ZanDsmWwanInfoType {
  std::int32_t word0 = 0;         ///< offset 0: the monitor's own
  std::int32_t word1 = -1;        ///< offset 4: the monitor's own
  std::int32_t status = 5;        ///< offset 8: connection status, 1 = connected
  std::int32_t word3 = 0;         ///< offset 12: the monitor's own
  std::list<ZanApnType> apnList;  ///< offset 16
  char text[131] = {};            ///< offset 28: NUL-terminated texts, see kWwanSecondTextOffset
};
