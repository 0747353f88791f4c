// Opens the table and asks conntrack for its statistics, which changes nothing.
#include "refhost/zanhost/Preflight.h"

#include <fcntl.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_conntrack.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <memory>

#include "base/UniqueFd.h"

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
  const std::unique_ptr<mnl_socket, decltype(&mnl_socket_close)> socket(
      mnl_socket_open2(NETLINK_NETFILTER, SOCK_CLOEXEC), mnl_socket_close);
  if (!socket || mnl_socket_bind(socket.get(), 0, MNL_SOCKET_AUTOPID) != 0) {
    return "no netfilter netlink socket" + reason(errno) + "; load the module nfnetlink";
  }
  const timeval limit{1, 0};
  setsockopt(mnl_socket_get_fd(socket.get()), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
  alignas(nlmsghdr) std::array<char, 4096> buffer;
  nlmsghdr* request = mnl_nlmsg_put_header(buffer.data());
  request->nlmsg_type = NFNL_SUBSYS_CTNETLINK << 8 | IPCTNL_MSG_CT_GET_STATS;
  request->nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK;
  mnl_nlmsg_put_extra_header(request, sizeof(nfgenmsg));
  ssize_t length = mnl_socket_sendto(socket.get(), request, request->nlmsg_len);
  if (length > 0) length = mnl_socket_recvfrom(socket.get(), buffer.data(), buffer.size());
  if (length < 0) return "conntrack's netlink interface does not answer" + reason(errno);
  const auto size = static_cast<std::size_t>(length);
  if (mnl_cb_run(buffer.data(), size, 0, 0, nullptr, nullptr) >= 0) return std::nullopt;
  const int error = errno;
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
