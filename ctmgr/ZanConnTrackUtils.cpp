#include "ctmgr/ZanConnTrackUtils.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <iterator>

#include "ctmgr/ConntrackLine.h"
#include "ctmgr/Log.h"

namespace {

constexpr int kModule = ZAN_LOG_MODULE_CT_MGR;

}  // namespace

ZanConnTrackUtils::ZanConnTrackUtils(Zan& zan) : dsm(zan.zanDsm), host(zan), com(zan.zanCom) {
  ZAN_LOG_ENTRY(kModule, "ZanConnTrackUtils::ZanConnTrackUtils(Zan &)", 83);
}

ZanConnTrackUtils::~ZanConnTrackUtils() {
  ZAN_LOG_ENTRY(kModule, "ZanConnTrackUtils::~ZanConnTrackUtils()", 110);
  if (connTrackFd != -1) close(connTrackFd);
}

int ZanConnTrackUtils::setPrivilegeParams() {
  connTrackFd = open(kConntrackTablePath, O_RDONLY | O_CLOEXEC);
  if (connTrackFd != -1) return 0;
  ZAN_LOG(kModule, kLogError, "ZanConnTrackUtils::parseNfConnTrackFile: Failed to open file %d",
          errno);
  return -1;
}

int ZanConnTrackUtils::getPrivilegeParams() {
  return connTrackFd;
}

int ZanConnTrackUtils::regNlSockEvents(NlMsgCallback /*cb*/, void* /*data*/) {
  ZAN_LOG(kModule, kLogTrace,
          "ZanConnTrackUtils::ZOLV flag enabled , ZAN netlink functionality is disabled.");
  return -1;
}

int ZanConnTrackUtils::deRegNlSockEvents(NlMsgCallback cb, void* data) {
  if (!nlSockRegistered) {
    ZAN_LOG(kModule, kLogTrace, "ZanConnTrackUtils::deRegNlSockEvents nothing to dereg");
    return -1;
  }
  if (nlSocket == nullptr) return -1;

  for (auto it = listeners.begin(); it != listeners.end(); ++it) {
    ZAN_LOG(kModule, kLogTrace, "ZanConnTrackUtils::deRegNlSockEvents: iterator address : %p",
            static_cast<void*>(&*it));
    if (it->callback == cb && it->data == data) {
      listeners.erase(it);
      break;
    }
  }
  ZAN_LOG(kModule, kLogTrace,
          "ZanConnTrackUtils::deRegNlSockEvents deleting nlsock, list size = %d",
          static_cast<int>(listeners.size()));
  if (!listeners.empty()) return 0;

  ZAN_LOG(kModule, kLogTrace, "ZanConnTrackUtils::stopNlSockEvents: %d", nlSocket->socketFd);
  com.removeComEventHandler(nlSocket->socketFd);
  delete nlSocket;
  nlSockRegistered = false;
  nlSocket = nullptr;
  return 0;
}

bool ZanConnTrackUtils::checkIfConnObjectPresent(NlMsgCallback cb, void* data) {
  return std::any_of(listeners.begin(), listeners.end(), [&](const NlSockListener& listener) {
    return listener.callback == cb && listener.data == data;
  });
}

void ZanConnTrackUtils::netLinkEventHandler(int /*fd*/, void* data) {
  auto* self = static_cast<ZanConnTrackUtils*>(data);
  ZAN_LOG(kModule, kLogTrace,
          "ZanConnTrackUtils::netLinkEventHandler: Calling NetlinkRecvSocketEvent");
  self->nlSocket->NetlinkRecvSocketEvent(0, HandleNlMsg, self);
}

void ZanConnTrackUtils::HandleNlMsg(void* data, nlmsghdr* msg, unsigned int len) {
  if (data == nullptr) return;
  auto& all = static_cast<ZanConnTrackUtils*>(data)->listeners;
  for (auto it = all.begin(); it != all.end();) {
    const auto current = it++;
    ZAN_LOG(kModule, kLogTrace, "ZanConnTrackUtils::HandleNlmsg: iterator address : %p",
            static_cast<void*>(&*current));
    if (current->callback != nullptr) current->callback(current->data, msg, len);
  }
}

void ZanConnTrackUtils::getIpV6Address(char* addr) {
  std::array<unsigned char, sizeof(in6_addr)> b{};
  if (!ctmgr::readExpandedAddress(addr, b.data())) {
    if (inet_pton(AF_INET6, addr, b.data()) != 1) return;
    std::snprintf(addr, kAddressTextSize,
                  "%02x%02x:%02x%02x:%02x%02x:%02x%02x:%02x%02x:%02x%02x:%02x%02x:%02x%02x", b[0],
                  b[1], b[2], b[3], b[4], b[5], b[6], b[7], b[8], b[9], b[10], b[11], b[12], b[13],
                  b[14], b[15]);
  }
  logExpanded(addr);
}

void ZanConnTrackUtils::logExpanded(const char* addr) {
  ZAN_LOG(kModule, kLogTrace, "ZanNetlinkMgr::Expanded ipv6 Addr %s\n", addr);
}
