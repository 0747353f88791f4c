// Idle tracking of one mobile-data interface.
#pragma once

#include <linux/netlink.h>

#include <cstdint>
#include <string>

#include "ctmgr/ZanConnTrackUtils.h"
#include "host/Zan.h"
#include "host/ZanCommands.h"

/// Hears about tethering, dormancy and filtering of its interface. While the link is dormant and
/// tethering off, the modem's packet filters are installed and a kernel idle timer
/// (iptables-extensions(8), IDLETIMER) measures for how long nothing is sent or received:
///
///   Listening ── dormant, tethering off: installFilters() ──► Filtering, timer of 5 s
///       ▲                                                        │  timer runs out: idle
///       │                                                        ▼
///       │                                      listen filters, timer of 10, 20, 40, 80 s, none
///       └── filtering ended, tethering on, a refusal: uninstallFilters()
///
/// Thread: event thread only. The privileged parent process blocks it until it has answered.
class ZanIfConnTracker {
 public:
  /// |idleStatus| points at one byte: 1 = the timer has run out, 0 = there is traffic again.
  using IdleStatusCallback = void (*)(const void* idleStatus, void* cbData, std::string ifaceName);

  /// Registers with the host for |ifaceName|, a kernel interface name. The host objects and |utils|
  /// must outlive the tracker.
  ZanIfConnTracker(Zan& zan, ZanConnTrackUtils& utils, ZanRix& rix, std::string ifaceName);

  /// Takes filters, timer and rules away, whether or not they were installed, and deregisters.
  ~ZanIfConnTracker();
  ZanIfConnTracker(const ZanIfConnTracker&) = delete;
  ZanIfConnTracker& operator=(const ZanIfConnTracker&) = delete;

  /// Listeners of the host; |cbData| is the tracker.
  static void dsmEventHandler(ZanDsmEvent event, const void* evtData, void* cbData);
  static void rixWdsEventHandler(ZanRixWdsEventType event, const void* evtData, void* cbData);
  static void rixDfsEventHandler(ZanRixDfsEventType event, const void* evtData, void* cbData);

  /// Sets the one listener for changes of the idle status. Returns 0, or -1 when |cb| is null.
  int regIdleStatusChgEvt(IdleStatusCallback cb, void* cbData);

  /// Installs the modem's filters and starts the timer at its first length. Returns 0, -1 when
  /// something is missing for it, or what the modem answered when that was not success.
  int installFilters();

  /// Takes all of that away again. Returns 0.
  int uninstallFilters();

  /// The interface has gone idle: installs the modem's listen filters and restarts the timer with
  /// its next length; takes everything away when the modem refuses.
  void instalListenFilters();

  /// Asks the privileged parent process for |cmd| and waits for its answer. Returns 0, or -1.
  int execCommand(ZAN_COMMANDS cmd);

  /// Both rules of the idle timer; false when one of them failed. After a failure of the first
  /// the second is not asked for.
  bool runIpTableAddCommands();
  bool runIpTableDeleteCommands();

  /// Adds the rules and watches the timer they create; |timeout| is in seconds.
  void startListenFilterTracking(unsigned int timeout);

  /// Stops watching and deletes the rules, whether or not there are any.
  void stopListenFilterTracking();

  /// Doubles the timer's length and restarts it, unless it has reached its maximum.
  void maybeStartIdleTimer();

  /// Ready handler of the timer's file; |cbData| is the tracker.
  static void idleTimerExpiryHandler(int fd, void* cbData);

  /// The property persist.vendor.zan.vndr.ctmgr.disable.icmp as a number.
  int readIcmpFilterInstallationProperty();

  /// Conntrack events are switched off in this build: returns -1.
  int startNlSockEvents();
  void stopNlSockEvents();
  static void NlSockEvtCb(void* cbData, nlmsghdr* msg, unsigned int len);

 protected:
  [[nodiscard]] HalFilterInfo filterInfo(std::int32_t icmpDisabled);

  Zan& host;
  ZanConnTrackUtils& connTrackUtils;
  ZanRix& zanRix;
  std::string ifaceName;
  std::int32_t icmpFilterDisabled = 0;
  ZanDsm* zanDsm = nullptr;
  std::int32_t dormancyStatus;  ///< last one acted upon: 1 = dormant, 2 = active
  ZanCom* zanCom = nullptr;
  IdleStatusCallback idleStatusCb = nullptr;
  unsigned int idleTimerValue;  ///< length of the next timer, in seconds
  void* idleStatusCbData = nullptr;
  unsigned int idleTimeOut = 0;  ///< length of the timer started last, in seconds
  std::uint8_t idleStatus = 0;   ///< 1 = idle
  int idleTimerFd = -1;          ///< the timer's file, watched by the event loop
};
