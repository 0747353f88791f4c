#include "refhost/HostStatus.h"

#include <fmt/format.h>
#include <linux/rtnetlink.h>
#include <nlohmann/json.hpp>
#include <sys/socket.h>
#include <sys/time.h>

#include "host/ZanNetlinkSocket.h"
#include "refhost/HostSides.h"
#include "refhost/NetlinkCounters.h"

namespace {

struct Dump {
  int neighbours = 0;
  bool done = false;
};

void countNeighbour(void* cbData, nlmsghdr* msg, unsigned int /*len*/) {
  auto* dump = static_cast<Dump*>(cbData);
  if (msg->nlmsg_type == RTM_NEWNEIGH) ++dump->neighbours;
  if (msg->nlmsg_type == NLMSG_DONE || msg->nlmsg_type == NLMSG_ERROR) dump->done = true;
}

/// Entries of the kernel's neighbour table of this network namespace, or -1.
int kernelNeighbours() {
  ZanNetlinkSocket socket(NETLINK_ROUTE, 0);
  const timeval limit{1, 0};
  setsockopt(socket.socketFd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
  struct {
    nlmsghdr header;
    ndmsg neighbour;
  } request{};
  request.header.nlmsg_len = sizeof(request);
  request.header.nlmsg_type = RTM_GETNEIGH;
  request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  if (send(socket.socketFd, &request, sizeof(request), 0) < 0) return -1;
  Dump dump;
  while (!dump.done) {
    if (socket.NetlinkRecv(0, countNeighbour, &dump) < 0) return -1;
  }
  return dump.neighbours;
}

}  // namespace

HostStatus readHostStatus(Zan& zan) {
  const DeletionCounters& deletions = deletionCounters();
  const NotificationCounters& notifications = notificationCounters();
  return {zan.zanDsm.hostSide().sapClients,
          kernelNeighbours(),
          notifications.delivered,
          notifications.overruns,
          deletions.requested,
          deletions.deleted,
          deletions.alreadyGone,
          deletions.refused};
}

std::string HostStatus::json() const {
  const nlohmann::ordered_json status{
      {"clients", clients},
      {"neighbours",
       {{"kernel", kernelNeighbours}, {"events", notifications}, {"overruns", overruns}}},
      {"deletions",
       {{"requested", requested},
        {"deleted", deleted},
        {"alreadyGone", alreadyGone},
        {"refused", refused}}}};
  return status.dump();
}

std::string HostStatus::text() const {
  return fmt::format(
      "clients     {}{}{}\n"
      "neighbours  {} in the kernel's table; {} notifications, {} overruns\n"
      "deletions   {} requested: {} deleted, {} already gone, {} refused",
      clients.size(), clients.empty() ? "" : ": ", fmt::join(clients, " "), kernelNeighbours,
      notifications, overruns, requested, deleted, alreadyGone, refused);
}
