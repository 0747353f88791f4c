#include "ctmgr/ZanIfConnTracker.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "ctmgr/CommandChannel.h"
#include "ctmgr/Log.h"
#include "ctmgr/NumberProperty.h"
#include "host/Agreement.h"

namespace {

constexpr int kModule = ZAN_LOG_MODULE_CT_MGR;

constexpr unsigned int kIdleTimerMinSeconds = 5;
constexpr unsigned int kIdleTimerMaxSeconds = 80;

constexpr char kIcmpProperty[] = "persist.vendor.zan.vndr.ctmgr.disable.icmp";

/// Room for the timer's path; a longer one is cut, and opening it fails.
constexpr std::size_t kTimerPathSize = 60;

/// How a sysfs attribute signals a change (Documentation/filesystems/sysfs.rst in the kernel).
constexpr unsigned int kSysfsEvents = POLLPRI | POLLERR;

bool isUsable(const void* evtData, const void* cbData) {
  if (evtData != nullptr && cbData != nullptr) return true;
  ZAN_LOG(kModule, kLogWarning, "Incorrect info passed evtData:0x%x cbData:0x%x",
          ctmgr::logWord(evtData), ctmgr::logWord(cbData));
  return false;
}

bool isHandled(int event, int handled) {
  if (event == handled) return true;
  ZAN_LOG(kModule, kLogUnhandled, "unhandled event:%d", event);
  return false;
}

/// The NUL-terminated text at |offset| of |field|, or what there is of it.
std::string textAt(const char (&field)[131], std::size_t offset) {
  return {field + offset, strnlen(field + offset, sizeof(field) - offset)};
}

}  // namespace

ZanIfConnTracker::ZanIfConnTracker(Zan& zan, ZanConnTrackUtils& utils, ZanRix& rix,
                                   std::string name)
    : host(zan),
      connTrackUtils(utils),
      zanRix(rix),
      ifaceName(std::move(name)),
      dormancyStatus(kLinkActive),
      idleTimerValue(kIdleTimerMinSeconds) {
  ZAN_LOG_ENTRY(kModule,
                "ZanIfConnTracker::ZanIfConnTracker(Zan &, ZanConnTrackUtils &, ZanRix &, string)",
                84);
  zanDsm = &host.zanDsm;
  zanCom = &host.zanCom;
  zanDsm->regEventCallback(ZAN_DSM_EVENT_TETHERING_STATE, dsmEventHandler, this);
  zanRix.regDormancyStatusChgEvent(ifaceName, rixWdsEventHandler, this);
  zanRix.regFilteringStatusChgEvent(ifaceName, rixDfsEventHandler, this);
  icmpFilterDisabled = readIcmpFilterInstallationProperty();
}

ZanIfConnTracker::~ZanIfConnTracker() {
  ZAN_LOG_ENTRY(kModule, "ZanIfConnTracker::~ZanIfConnTracker()", 120);
  uninstallFilters();
  zanRix.deRegDormancyStatusChgEvent(ifaceName, rixWdsEventHandler, this);
  zanRix.deRegFilteringStatusChgEvent(ifaceName, rixDfsEventHandler, this);
  if (zanDsm != nullptr) {
    zanDsm->deregEventCallback(ZAN_DSM_EVENT_TETHERING_STATE, dsmEventHandler, this);
  }
}

void ZanIfConnTracker::dsmEventHandler(ZanDsmEvent event, const void* evtData, void* cbData) {
  if (!isUsable(evtData, cbData)) return;
  ZAN_LOG(kModule, kLogUnhandled, "ZanIfConnTracker::dsmEventHandler event:%d", event);
  if (!isHandled(event, ZAN_DSM_EVENT_TETHERING_STATE)) return;
  auto* self = static_cast<ZanIfConnTracker*>(cbData);
  const std::int32_t tethering = *static_cast<const std::int32_t*>(evtData);
  if (tethering != kTetheringOn && tethering != kTetheringOff) return;
  if (self->zanRix.getDormancyStatus(self->ifaceName) != kLinkDormant) return;

  if (tethering == kTetheringOn) {
    self->uninstallFilters();
    ZAN_LOG(kModule, kLogTrace, "uninstalled Filters after tethering ON");
    return;
  }
  const int result = self->installFilters();
  if (result == 0) {
    self->zanRix.deRegDormancyStatusChgEvent(self->ifaceName, rixWdsEventHandler, self);
  }
  ZAN_LOG(kModule, kLogTrace, "installFilters after tethering off ret: %d", result);
}

void ZanIfConnTracker::rixWdsEventHandler(ZanRixWdsEventType event, const void* evtData,
                                          void* cbData) {
  if (!isUsable(evtData, cbData)) return;
  ZAN_LOG(kModule, kLogTrace, "ZanIfConnTracker::rixWdsEventHandler event: %d", event);
  if (!isHandled(event, ZAN_RIX_WDS_EVENT_DORMANCY_STATUS)) return;
  auto* self = static_cast<ZanIfConnTracker*>(cbData);
  const auto& record = *static_cast<const ZanRixStatusRecord*>(evtData);
  ZAN_LOG(kModule, kLogTrace, "ZanIfConnTracker::rixWdsEventHandler iface: %s status: %d",
          record.ifaceName.c_str(), record.status);
  if (record.ifaceName.data() == nullptr || self->ifaceName.data() == nullptr) {
    ZAN_LOG(kModule, kLogUnhandled, "Failed to install filters");
    return;
  }
  if (record.ifaceName != self->ifaceName || record.status != kLinkDormant ||
      self->zanDsm->tetheringIndicator != 0) {
    return;
  }
  if (self->dormancyStatus == kLinkDormant) {
    ZAN_LOG(kModule, kLogTrace, "No change in dormancy status");
    return;
  }
  const int result = self->installFilters();
  if (result == 0) {
    self->dormancyStatus = kLinkDormant;
    self->zanRix.deRegDormancyStatusChgEvent(self->ifaceName, rixWdsEventHandler, self);
  }
  ZAN_LOG(kModule, kLogTrace, "after installFilters ret: %d", result);
}

void ZanIfConnTracker::rixDfsEventHandler(ZanRixDfsEventType event, const void* evtData,
                                          void* cbData) {
  if (!isUsable(evtData, cbData)) return;
  ZAN_LOG(kModule, kLogTrace, "ZanIfConnTracker::rixDfsEventHandler event: %d", event);
  if (!isHandled(event, ZAN_RIX_DFS_EVENT_FILTERING_STATUS)) return;
  auto* self = static_cast<ZanIfConnTracker*>(cbData);
  const auto& record = *static_cast<const ZanRixStatusRecord*>(evtData);
  ZAN_LOG(kModule, kLogTrace, "ZanIfConnTracker::rixDfsEventHandler iface: %s status: %d",
          record.ifaceName.c_str(), record.status);
  if (record.ifaceName.data() == nullptr || self->ifaceName.data() == nullptr) {
    ZAN_LOG(kModule, kLogUnhandled, "Failed to uninstall filters");
    return;
  }
  if (record.ifaceName != self->ifaceName || record.status != kFilteringEnded) return;
  self->dormancyStatus = kLinkActive;
  self->zanRix.regDormancyStatusChgEvent(self->ifaceName, rixWdsEventHandler, self);
  self->uninstallFilters();
}

int ZanIfConnTracker::regIdleStatusChgEvt(IdleStatusCallback cb, void* cbData) {
  if (cb == nullptr) return -1;
  idleStatusCb = cb;
  idleStatusCbData = cbData;
  return 0;
}

/// What the modem is told, from the monitor's record of the interface as it is now.
HalFilterInfo ZanIfConnTracker::filterInfo(std::int32_t icmpDisabled) {
  const _ZanDsmWwanInfoType record = zanDsm->getWwanInfo(ifaceName.c_str());
  return {ifaceName, record.status, textAt(record.text, 0),
          textAt(record.text, kWwanSecondTextOffset), icmpDisabled};
}

int ZanIfConnTracker::installFilters() {
  const int conntrackFd = connTrackUtils.getPrivilegeParams();
  if (conntrackFd == -1) {
    ZAN_LOG(kModule, kLogError, "ZanIfConnTracker::Failed to get Nf_connTrack Descriptor");
    return -1;
  }
  ZAN_LOG(kModule, kLogError, "ZanIfConnTracker::installFilters Entering");
  if (ifaceName.empty()) {
    ZAN_LOG(kModule, kLogError, "ZanIfConnTracker::installFilters Iface Name is Empty");
    return -1;
  }
  const HalFilterInfo info = filterInfo(icmpFilterDisabled);
  ZAN_LOG(kModule, kLogError, "ZanIfConnTracker::installFilters Entering %s %d %s",
          ifaceName.c_str(), info.wwanStatus, info.wwanText1.c_str());
  const int result = zanRix.installFilters(info, conntrackFd);
  if (result != kModemSuccess) {
    ZAN_LOG(kModule, kLogError,
            "ZanIfConnTracker::installFilters: Failed to add filters for iface %s",
            ifaceName.c_str());
    return result;
  }
  zanRix.setDfsFilterMode(ifaceName, true);
  idleTimerValue = kIdleTimerMinSeconds;
  startListenFilterTracking(kIdleTimerMinSeconds);
  return 0;
}

int ZanIfConnTracker::uninstallFilters() {
  zanRix.uninstallFilters(ifaceName);
  zanRix.setDfsFilterMode(ifaceName, false);
  stopListenFilterTracking();
  idleTimerValue = kIdleTimerMinSeconds;
  return 0;
}

void ZanIfConnTracker::instalListenFilters() {
  ZAN_LOG(kModule, kLogTrace, "ZanIfConnTracker::install listen filters ");
  if (ifaceName.empty()) {
    ZAN_LOG(kModule, kLogError, "ZanIfConnTracker::install listen Filters Iface Name is Empty");
    return;
  }
  // The ICMP property does not count for listen filters.
  if (zanRix.installListenFilters(filterInfo(0)) != kModemSuccess) {
    ZAN_LOG(kModule, kLogError,
            "ZanIfConnTracker::install Listen Filters: Failed to add filters for iface %s",
            ifaceName.c_str());
    uninstallFilters();
    return;
  }
  ZAN_LOG(kModule, kLogTrace, "ZanIfConnTracker:: install listen filter: successfull ");
  stopListenFilterTracking();
  ZAN_LOG(kModule, kLogTrace, "ZanIfConnTracker:: start listen filters track");
  maybeStartIdleTimer();
}

int ZanIfConnTracker::execCommand(ZAN_COMMANDS cmd) {
  return ctmgr::CommandChannel(host.commandChannelFd).execute(cmd, ifaceName, idleTimeOut) ? 0 : -1;
}

bool ZanIfConnTracker::runIpTableAddCommands() {
  ZAN_LOG(kModule, kLogTrace, "ZanIfConnTracker::runIpTableAddCommands");
  return execCommand(ZAN_CMD_IDLETIMER_ADD_1) != -1 && execCommand(ZAN_CMD_IDLETIMER_ADD_2) != -1;
}

bool ZanIfConnTracker::runIpTableDeleteCommands() {
  return execCommand(ZAN_CMD_IDLETIMER_DEL_1) != -1 && execCommand(ZAN_CMD_IDLETIMER_DEL_2) != -1;
}

void ZanIfConnTracker::startListenFilterTracking(unsigned int timeout) {
  ZAN_LOG(kModule, kLogTrace, "ZanIfConnTracker::startTracking %d", static_cast<int>(timeout));
  idleTimeOut = timeout;
  if (timeout == 0) {
    ZAN_LOG(kModule, kLogNotice, "ZanIfConnTracker::startTracking idleTimeOut <= 0");
    return;
  }
  if (!runIpTableAddCommands()) {
    ZAN_LOG(kModule, kLogNotice, "ZanIfConnTracker::startTracking fail to add ipTable rules");
    return;
  }
  // A second start without a stop would leave the first descriptor to the event loop for good,
  // and with it a tracker that may be gone.
  if (idleTimerFd != -1) {
    if (zanCom != nullptr) zanCom->removeComEventHandler(idleTimerFd);
    close(idleTimerFd);
  }
  char path[kTimerPathSize];
  std::snprintf(path, sizeof(path), "/sys/class/xt_idletimer/timers/%s_%s", kIdleTimerLabelPrefix,
                ifaceName.c_str());
  idleTimerFd = open(path, O_RDONLY | O_CLOEXEC);
  if (idleTimerFd == -1) {
    ZAN_LOG(kModule, kLogNotice, "ZanIfConnTracker::startTracking file open fail = %d", errno);
    stopListenFilterTracking();
    return;
  }
  if (zanCom == nullptr) {
    ZAN_LOG(kModule, kLogNotice, "ZanIfConnTracker::startTracking com is NULL");
    stopListenFilterTracking();
    return;
  }
  zanCom->addComEventHandler(idleTimerFd, idleTimerExpiryHandler, this, nullptr, kSysfsEvents);
}

void ZanIfConnTracker::stopListenFilterTracking() {
  ZAN_LOG(kModule, kLogTrace, "ZanIfConnTracker::stopTracking");
  if (zanCom != nullptr) {
    ZAN_LOG(kModule, kLogTrace, "ZanIfConnTracker::removeComEventHandler fd %d", idleTimerFd);
    zanCom->removeComEventHandler(idleTimerFd);
  }
  if (idleTimerFd != -1) {
    ZAN_LOG(kModule, kLogTrace, "ZanIfConnTracker::closing file descriptor ");
    close(idleTimerFd);
    idleTimerFd = -1;
  }
  if (!runIpTableDeleteCommands()) {
    ZAN_LOG(kModule, kLogTrace, "ZanIfConnTracker::stopTracking runIpTableDeleteCommands failed");
  }
  idleStatus = 0;
}

void ZanIfConnTracker::maybeStartIdleTimer() {
  if (idleTimerValue == kIdleTimerMaxSeconds) {
    ZAN_LOG(kModule, kLogNotice,
            "ZanIfConnTracker::Max idle timer value is reached.Not restarting the timer :%d",
            static_cast<int>(kIdleTimerMaxSeconds));
    return;
  }
  idleTimerValue *= 2;
  ZAN_LOG(kModule, kLogNotice, "ZanIfConnTracker::idleTimer value is :%d",
          static_cast<int>(idleTimerValue));
  startListenFilterTracking(idleTimerValue);
}

void ZanIfConnTracker::idleTimerExpiryHandler(int fd, void* cbData) {
  if (cbData == nullptr) {
    ZAN_LOG(kModule, kLogWarning, "ZanIfConnTracker cbdata is NULL");
    return;
  }
  auto* self = static_cast<ZanIfConnTracker*>(cbData);
  char buffer[10] = {};
  ssize_t count = 0;
  while ((count = read(fd, buffer, sizeof(buffer))) >= 1) {
    ZAN_LOG(kModule, kLogTrace, "ZanIfConnTracker read n %d bytes", static_cast<int>(count));
    buffer[sizeof(buffer) - 1] = '\0';
    ZAN_LOG(kModule, kLogTrace, "ZanIfConnTracker::idleTimerExpiryHandler - buf = %s", buffer);
  }
  if (count < 0) {
    ZAN_LOG(kModule, kLogWarning, "ZanIfConnTracker idle timer fd read failed with errno: %s",
            std::strerror(errno));
    self->stopListenFilterTracking();
    self->startListenFilterTracking(self->idleTimeOut);
    return;
  }
  const int watched = self->idleTimerFd;
  const std::uint8_t status = std::atoi(buffer) == 0 ? 1 : 0;
  if (status != self->idleStatus) {
    ZAN_LOG(kModule, kLogNotice, "ZanIfConnTracker::idleTimerExpiryHandler - idleStatus = %d",
            status);
    self->idleStatus = status;
    if (self->idleStatusCb != nullptr) {
      self->idleStatusCb(&status, self->idleStatusCbData, self->ifaceName);
    }
  }
  // The listener may have closed the descriptor; its number may be anybody's then.
  if (self->idleTimerFd == watched || self->idleTimerFd == fd) lseek(fd, 0, SEEK_SET);
}

int ZanIfConnTracker::readIcmpFilterInstallationProperty() {
  return ctmgr::readNumberProperty(kIcmpProperty);
}

int ZanIfConnTracker::startNlSockEvents() {
  ZAN_LOG(kModule, kLogTrace,
          "ZanIfConnTracker::startNlSockEvents:: registering nlsock for ifaceName %s",
          ifaceName.c_str());
  return connTrackUtils.regNlSockEvents(NlSockEvtCb, this);
}

void ZanIfConnTracker::stopNlSockEvents() {
  ZAN_LOG(kModule, kLogTrace,
          "ZanIfConnTracker::stopNlSockEvents: deregistering nlsock for ifaceName %s",
          ifaceName.c_str());
  connTrackUtils.deRegNlSockEvents(NlSockEvtCb, this);
}

void ZanIfConnTracker::NlSockEvtCb(void* /*cbData*/, nlmsghdr* /*msg*/, unsigned int /*len*/) {}
