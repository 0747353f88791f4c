// The framework's modem control interface.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

/// What the modem is told about an interface whose filters it installs.
struct HalFilterInfo {
  std::string ifaceName;
  std::int32_t wwanStatus;          ///< status of the interface's WWAN record
  std::string wwanText1;            ///< the text at the start of the record's character field
  std::string wwanText2;            ///< the text 62 bytes into it
  std::int32_t icmpFilterDisabled;  ///< non-zero: leave ICMP out of the filters
};

/// Dormancy events. The event data is a ZanRixStatusRecord.
enum ZanRixWdsEventType : std::int32_t { ZAN_RIX_WDS_EVENT_DORMANCY_STATUS = 0 };

/// Packet-filtering events. The event data is a ZanRixStatusRecord.
enum ZanRixDfsEventType : std::int32_t { ZAN_RIX_DFS_EVENT_FILTERING_STATUS = 0 };

struct ZanRixStatusRecord {
  std::string ifaceName;
  std::int32_t status;  ///< dormancy: 1 = dormant; filtering: 1 = filtering has ended
};

/// Modem dormancy and packet filters, by kernel interface name.
///
/// Thread: event thread only; events arrive there too.
class ZanRix {
 public:
  ZanRix();
  ~ZanRix();
  ZanRix(const ZanRix&) = delete;
  ZanRix& operator=(const ZanRix&) = delete;

  using WdsCallback = void (*)(ZanRixWdsEventType event, const void* evtData, void* cbData);
  using DfsCallback = void (*)(ZanRixDfsEventType event, const void* evtData, void* cbData);

  /// Starts / stops delivering dormancy events of |ifaceName| to |callback|. |cbData| stays the
  /// caller's and must live until it is deregistered. A listener that is registered again is
  /// still one, and gone after one deregistration. The results are for the framework's log.
  int regDormancyStatusChgEvent(std::string ifaceName, WdsCallback callback, void* cbData);
  int deRegDormancyStatusChgEvent(std::string ifaceName, WdsCallback callback, void* cbData);

  /// The same for packet-filtering events.
  int regFilteringStatusChgEvent(std::string ifaceName, DfsCallback callback, void* cbData);
  int deRegFilteringStatusChgEvent(std::string ifaceName, DfsCallback callback, void* cbData);

  /// 1 = the link is dormant.
  int getDormancyStatus(std::string ifaceName);

  /// Switches the modem's filter mode for |ifaceName|.
  int setDfsFilterMode(std::string ifaceName, bool enabled);

  /// Installs packet filters for the connections that |conntrackFd|, an open descriptor of the
  /// conntrack table that stays the caller's, lists. Returns 1 on success.
  int installFilters(HalFilterInfo info, int conntrackFd);
  int uninstallFilters(std::string ifaceName);

  /// Installs the filters that let only listening sockets be woken. Returns 1 on success.
  int installListenFilters(HalFilterInfo info);

 private:
  friend struct HostSides;
  struct HostSide;  ///< the modem itself, which only the framework knows
  std::unique_ptr<HostSide> side;
};
