#include "refhost/zanhost/Preflight.h"

#include <fcntl.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_conntrack.h>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/UniqueFd.h"
#include "refhost/framework/NetlinkMessages.h"

namespace zanhost {
namespace {

constexpr char kTablePath[] = "/proc/net/nf_conntrack";

std::string reason(int error) {
  return std::string(": ") + std::strerror(error);
}

std::optional<std::string> conntrackTable() {
  const base::UniqueFd table(open(kTablePath, O_RDONLY | O_CLOEXEC));
  if (table.valid()) return std::nullopt;
  const int error = errno;
  std::string text = std::string("cannot read ") + kTablePath + reason(error);
  if (error == ENOENT) {
    text += "; load the module nf_conntrack, on a kernel with CONFIG_NF_CONNTRACK_PROCFS";
  } else {
    text +=
        "; run as root, or in a network namespace made after its user namespace"
        " (unshare -Urm unshare -n)";
  }
  return text;
}

/// Asks for the conntrack statistics: every conntrack request needs the same module and the same
/// privilege, and this one only reads.
std::optional<std::string> conntrackNetlink() {
  const base::UniqueFd socketFd(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_NETFILTER));
  if (!socketFd.valid()) {
    return "no netfilter netlink socket" + reason(errno) + "; load the module nfnetlink";
  }
  struct {
    nlmsghdr header;
    nfgenmsg family;
  } request{};
  request.header.nlmsg_len = sizeof(request);
  request.header.nlmsg_type = NFNL_SUBSYS_CTNETLINK << 8 | IPCTNL_MSG_CT_GET_STATS;
  request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK;
  const timeval limit{1, 0};
  setsockopt(socketFd.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
  alignas(nlmsghdr) char answer[4096];
  ssize_t received = send(socketFd.get(), &request, sizeof(request), 0);
  if (received > 0) received = recv(socketFd.get(), answer, sizeof(answer), 0);
  if (received < 0) return "conntrack's netlink interface does not answer" + reason(errno);

  const auto* header = reinterpret_cast<const nlmsghdr*>(answer);
  if (header->nlmsg_type != NLMSG_ERROR) return std::nullopt;
  const int error = -framework::netlinkPayload<nlmsgerr>(header)->error;
  if (error == 0) return std::nullopt;
  if (error == EPERM) {
    return "not allowed to delete conntrack entries" + reason(error) +
           "; run as root, with CAP_NET_ADMIN, or in a user namespace that owns the network "
           "namespace";
  }
  return "the kernel does not take conntrack requests" + reason(error) +
         "; load the module nf_conntrack_netlink";
}

}  // namespace

std::optional<std::string> missingKernelSupport() {
  if (auto missing = conntrackTable()) return missing;
  return conntrackNetlink();
}

}  // namespace zanhost
