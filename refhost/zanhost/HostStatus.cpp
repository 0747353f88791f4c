// Where the status comes from, and how it reads.
#include "refhost/zanhost/HostStatus.h"

#include <fmt/format.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include "host/ZanNetlinkSocket.h"
#include "refhost/framework/HostSides.h"
#include "refhost/framework/Netlink.h"
#include "refhost/framework/NetlinkCounters.h"

namespace zanhost {
namespace {

void countNeighbour(void* cbData, nlmsghdr* msg, unsigned int /*len*/) {
  if (msg->nlmsg_type == RTM_NEWNEIGH) ++*static_cast<int*>(cbData);
}

/// Entries of the kernel's neighbour table of this network namespace, or -1.
int kernelNeighbours() {
  ZanNetlinkSocket socket(NETLINK_ROUTE, 0);
  const timeval limit{1, 0};
  setsockopt(socket.socketFd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
  int neighbours = 0;
  return framework::receiveList(socket, RTM_GETNEIGH, countNeighbour, &neighbours) ? neighbours
                                                                                   : -1;
}

std::string interfaceText(const HostStatus::Interface& interface) {
  return fmt::format(
      "\ninterface   {}: {}, APNs [{}], {}, filter mode {}, filters {}, listen filters {}",
      interface.name, interface.connected ? "connected" : "disconnected",
      fmt::join(interface.apns, " "), interface.dormancy, interface.filterMode ? "on" : "off",
      interface.filters ? "in" : "out", interface.listenFilters ? "in" : "out");
}

/// Every interface that the monitor or the modem knows.
std::vector<HostStatus::Interface> readInterfaces(Zan& zan) {
  const auto& records = HostSides::wwanInfoOf(zan.zanDsm);
  framework::Modem& modem = HostSides::modemOf(zan.zanRix);
  for (const auto& record : records) modem.interface(record.first);
  std::vector<HostStatus::Interface> interfaces;
  for (const auto& [name, radio] : modem.interfaces()) {
    const _ZanDsmWwanInfoType record = zan.zanDsm.getWwanInfo(name.c_str());
    interfaces.push_back({name,
                          record.status == ZAN_WWAN_STATUS_CONNECTED,
                          {record.apnList.begin(), record.apnList.end()},
                          radio.dormancy == kLinkDormant ? "dormant" : "active",
                          radio.filterMode,
                          radio.filters,
                          radio.listenFilters});
  }
  return interfaces;
}

}  // namespace

HostStatus readHostStatus(Zan& zan) {
  const framework::DeletionCounters& deletions = framework::deletionCounters();
  const framework::NotificationCounters& notifications = framework::notificationCounters();
  return {HostSides::sapClientsOf(zan.zanDsm),
          kernelNeighbours(),
          notifications.delivered,
          notifications.overruns,
          deletions.requested,
          deletions.deleted,
          deletions.alreadyGone,
          deletions.refused,
          zan.zanDsm.tetheringIndicator != 0,
          readInterfaces(zan),
          parent::currentPrivileges()};
}

std::string HostStatus::text() const {
  std::string text = fmt::format(
      "clients     {}{}{}\n"
      "neighbours  {} in the kernel's table; {} notifications, {} overruns\n"
      "deletions   {} requested: {} deleted, {} already gone, {} refused",
      clients.size(), clients.empty() ? "" : ": ", fmt::join(clients, " "), kernelNeighbours,
      notifications, overruns, requested, deleted, alreadyGone, refused);
  text += fmt::format("\ntethering   {}", tethering ? "on" : "off");
  for (const Interface& interface : interfaces) text += interfaceText(interface);
  text += fmt::format("\nprivileges  pid {}, uid {}, gid {}; {}", getpid(), privileges.uid,
                      privileges.gid, fmt::join(privileges.capabilities, " "));
  return text;
}

}  // namespace zanhost
