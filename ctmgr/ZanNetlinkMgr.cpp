#include "ctmgr/ZanNetlinkMgr.h"

#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/rtnetlink.h>
#include <poll.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

#include "ctmgr/CheckedArithmetic.h"
#include "ctmgr/Log.h"
#include "host/Agreement.h"

namespace {

constexpr int kModule = ZAN_LOG_MODULE_CT_NET;

constexpr char kNullMac[] = "00:00:00:00:00:00";

using AddressText = char[kAddressTextSize];

constexpr unsigned int kAttributeHeaderLength = sizeof(rtattr);
constexpr std::size_t kAddressBytes = sizeof(sockaddr_storage) - sizeof(sa_family_t);
constexpr std::size_t kLinkAddressBytes = sizeof(sockaddr::sa_data);

/// What the walk over the attributes may overrun the message by, for the padded header that the
/// budget does not deduct.
constexpr std::size_t kBudgetExcess = sizeof(ndmsg);
static_assert(kBudgetExcess + kAddressBytes <= kNetlinkReceiveSlack);

void copyText(AddressText& to, const AddressText& from) {
  std::memcpy(to, from, kAddressTextSize);
  to[kAddressTextSize - 1] = '\0';
}

/// The address bytes of |address|, right behind its family.
unsigned char* addressBytes(sockaddr_storage& address) {
  return reinterpret_cast<unsigned char*>(&address) + sizeof(sa_family_t);
}

/// Link-local (fe80::/10), site-local (fec0::/10) and multicast addresses are of no use beyond
/// their link.
bool isGlobal(const unsigned char* address) {
  const bool multicast = address[0] == 0xff;
  const bool linkOrSiteLocal = address[0] == 0xfe && (address[1] & 0x80) != 0;
  return !multicast && !linkOrSiteLocal;
}

bool isNullMac(const AddressText& mac) {
  if (std::memcmp(mac, kNullMac, sizeof(kNullMac)) != 0) return false;
  ZAN_LOG(kModule, kLogTrace, "ZanNetlinkMgr::Null MAC address received. Ignore");
  return true;
}

/// Writes the address texts of |neigh| into |info|; false when the event is to be dropped.
bool readAddress(ZanNetlinkMgr::zanNlNeighInfo& neigh, ZanNetlinkMgr::_NetlinkInfo& info) {
  const unsigned char* address = addressBytes(neigh.addr);
  switch (neigh.addr.ss_family) {
    case AF_INET:
      inet_ntop(AF_INET, address, info.ipv4Addr, sizeof(info.ipv4Addr));
      ZAN_LOG(kModule, kLogTrace, "ZanNetlinkMgr::Ipv4 neighbor Address %s", info.ipv4Addr);
      return true;
    case AF_INET6:
      if (!isGlobal(address)) {
        ZAN_LOG(kModule, kLogTrace,
                "ZanNetlinkMgr::Ipv6 neighbor Address is not global.Ignore and free mem");
        return false;
      }
      inet_ntop(AF_INET6, address, info.ipv6Addr, sizeof(info.ipv6Addr));
      ZAN_LOG(kModule, kLogTrace, "ZanNetlinkMgr::Ipv6 neighbor Address %s", info.ipv6Addr);
      ZanConnTrackUtils::getIpV6Address(info.ipv6Addr);
      info.isIpv6 = true;
      return true;
    default:
      // The event goes on all the same, without an address.
      ZAN_LOG(kModule, kLogTrace,
              "ZanNetlinkMgr::neighbor event received with unknown family. Ignore.");
      return true;
  }
}

void readMac(const sockaddr& lladdr, ZanNetlinkMgr::_NetlinkInfo& info) {
  std::array<unsigned char, ETH_ALEN> mac;
  std::memcpy(mac.data(), lladdr.sa_data, mac.size());
  std::snprintf(info.macAddr, sizeof(info.macAddr), "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1],
                mac[2], mac[3], mac[4], mac[5]);
}

}  // namespace

ZanNetlinkMgr::ZanNetlinkMgr(ZanCom& zanCom, ZanDsm& /*dsm*/, ZanConnTrackUtils& utils)
    : nlSocket(nullptr), com(zanCom), connTrackUtils(utils) {
  ZAN_LOG_ENTRY(kModule, "ZanNetlinkMgr::ZanNetlinkMgr(ZanCom &, ZanDsm &, ZanConnTrackUtils &)",
                50);
  nlSocket = new ZanNetlinkSocket(NETLINK_ROUTE, RTMGRP_NEIGH);
  com.addComEventHandler(nlSocket->socketFd, zanNetlinkEvtCallback, this, nullptr, POLLIN);
}

ZanNetlinkMgr::~ZanNetlinkMgr() {
  ZAN_LOG_ENTRY(kModule, "ZanNetlinkMgr::~ZanNetlinkMgr()", 73);
  delete nlSocket;
}

void ZanNetlinkMgr::zanNetlinkEvtCallback(int /*fd*/, void* data) {
  static_cast<ZanNetlinkMgr*>(data)->nlSocket->NetlinkRecv(0, HandleNlMsg, data);
}

void ZanNetlinkMgr::HandleNlMsg(void* data, nlmsghdr* msg, unsigned int len) {
  ZAN_LOG_ENTRY(kModule,
                "static void ZanNetlinkMgr::HandleNlMsg(void *, struct nlmsghdr *, unsigned int)",
                110);
  ZAN_LOG(kModule, kLogTrace, "ZanNetlinkMgr::neighbor event received: %d",
          static_cast<int>(msg->nlmsg_type));
  if (msg->nlmsg_type != RTM_NEWNEIGH && msg->nlmsg_type != RTM_DELNEIGH) {
    ZAN_LOG(kModule, kLogTrace, "ZanNetlinkMgr::Ignore netlink event");
    return;
  }
  const std::unique_ptr<zanNlNeighInfo> neigh(new (std::nothrow) zanNlNeighInfo());
  if (!neigh) {
    ZAN_LOG(kModule, kLogError, "msgPtr is nullptr");
    return;
  }
  auto* self = static_cast<ZanNetlinkMgr*>(data);
  self->nlDecodeRtmNeigh(msg, len, neigh.get());

  _NetlinkInfo info{};
  if (!readAddress(*neigh, info)) return;
  readMac(neigh->lladdr, info);
  if (msg->nlmsg_type == RTM_NEWNEIGH) {
    ZAN_LOG(kModule, kLogTrace, "ZanNetlinkMgr::Neighbor Mac Address %s", info.macAddr);
    self->handleNewNeighEvent(&info);
  } else {
    ZAN_LOG(kModule, kLogTrace, "ZanNetlinkMgr::Neighbor Mac Address Memcpy %s", info.macAddr);
    self->handleDelNeighEvent(&info);
  }
}

void ZanNetlinkMgr::nlDecodeRtmNeigh(nlmsghdr* msg, unsigned int len, zanNlNeighInfo* out) {
  ZAN_LOG_ENTRY(kModule,
                "void ZanNetlinkMgr::nlDecodeRtmNeigh(struct nlmsghdr *, unsigned int, "
                "zanNlNeighInfo *)",
                246);
  const auto* bytes = reinterpret_cast<const unsigned char*>(msg);
  std::memcpy(&out->ndm, bytes + sizeof(nlmsghdr), sizeof(out->ndm));

  const unsigned char* position = bytes + sizeof(nlmsghdr) + sizeof(ndmsg);
  unsigned int remaining = ctmgr::checkedSub(len, sizeof(nlmsghdr));
  while (remaining >= kAttributeHeaderLength) {
    rtattr attribute;
    std::memcpy(&attribute, position, sizeof(attribute));
    if (attribute.rta_len < kAttributeHeaderLength || attribute.rta_len > remaining) return;

    const unsigned char* payload = position + kAttributeHeaderLength;
    if (attribute.rta_type == NDA_DST) {
      out->addr.ss_family = out->ndm.ndm_family;
      std::memcpy(addressBytes(out->addr), payload, kAddressBytes);
    } else if (attribute.rta_type == NDA_LLADDR) {
      std::memcpy(out->lladdr.sa_data, payload, kLinkAddressBytes);
    }
    const unsigned int step = ctmgr::checkedAlign4(attribute.rta_len);
    remaining = ctmgr::checkedSub(remaining, step);
    position += step;
  }
}

void ZanNetlinkMgr::handleNewNeighEvent(_NetlinkInfo* info) {
  if (isNullMac(info->macAddr)) return;
  if (isKnown(*info)) {
    ZAN_LOG(kModule, kLogTrace, "ZanNetlinkMgr::Existing Neighbor Entry. Update Map");
  } else {
    ZAN_LOG(kModule, kLogTrace, "ZanNetlinkMgr:: New Neighbor Entry received");
  }
  updateTable(*info);
}

void ZanNetlinkMgr::updateTable(const _NetlinkInfo& info) {
  const ctmgr::MutexLock lock(tableMutex);
  _ZanNeighInfoType& neighbour = neighInfoMap[info.macAddr];
  copyText(neighbour.macAddr, info.macAddr);
  if (info.isIpv6) {
    copyText(neighbour.ipv6Addr, info.ipv6Addr);
  } else {
    copyText(neighbour.ipv4Addr, info.ipv4Addr);
  }
}

bool ZanNetlinkMgr::isKnown(const _NetlinkInfo& info) {
  const ctmgr::MutexLock lock(tableMutex);
  return neighInfoMap.count(info.macAddr) != 0;
}

void ZanNetlinkMgr::handleDelNeighEvent(_NetlinkInfo* info) {
  if (isNullMac(info->macAddr)) return;
  if (isKnown(*info)) {
    ZAN_LOG(kModule, kLogTrace, "ZanNetlinkMgr::Ignore neighbour lost ip address.");
  } else {
    ZAN_LOG(kModule, kLogTrace, "ZanNetlinkMgr::Neighbor lost event received on unknown client");
  }
}

_ZanNeighInfoType ZanNetlinkMgr::getNeighInfo(std::string mac) {
  const ctmgr::MutexLock lock(tableMutex);
  const auto entry = neighInfoMap.find(mac);
  return entry == neighInfoMap.end() ? _ZanNeighInfoType{} : entry->second;
}

void ZanNetlinkMgr::getNeighipv4Addresses(std::vector<std::string>& out) {
  const ctmgr::MutexLock lock(tableMutex);
  for (const auto& entry : neighInfoMap) out.emplace_back(entry.second.ipv4Addr);
}

void ZanNetlinkMgr::delNeighInfoEntry(std::string mac) {
  const ctmgr::MutexLock lock(tableMutex);
  neighInfoMap.erase(mac);
}

void ZanNetlinkMgr::getExpandedIpV6Address(char* addr) {
  ZanConnTrackUtils::getIpV6Address(addr);
}
