// The framework's netlink socket, over libmnl.
#include "host/ZanNetlinkSocket.h"

#include <libmnl/libmnl.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "refhost/framework/HostLog.h"
#include "refhost/framework/NeighbourListing.h"
#include "refhost/framework/Netlink.h"
#include "refhost/framework/NetlinkCounters.h"

namespace {

/// Bytes to read at once: no notification or part of a dump is longer than 32 KiB (NLMSG_GOODSIZE
/// in the kernel's linux/netlink.h), and an acknowledgement of a conntrack request, which brings
/// the request back, not longer than 8 KiB.
std::size_t receiveSizeOf(int protocol) {
  return protocol == NETLINK_NETFILTER ? 8192 : 32768;
}

/// The kernel answers a request before sendto(2) returns; who waits longer waits in vain.
constexpr timeval kAnswerTimeout{1, 0};

struct CloseSocket {
  void operator()(mnl_socket* socket) const { mnl_socket_close(socket); }
};

/// Calls |visit| with every complete message in the |length| bytes at |buffer|; their number.
template <typename Visit>
int forEachMessage(std::vector<unsigned char>& buffer, ssize_t length, Visit visit) {
  int count = 0;
  auto left = static_cast<int>(length);
  auto* msg = static_cast<nlmsghdr*>(static_cast<void*>(buffer.data()));
  for (; mnl_nlmsg_ok(msg, left); msg = mnl_nlmsg_next(msg, &left)) {
    visit(msg);
    ++count;
  }
  return count;
}

/// A bridge's word about where it has seen a MAC address. It names no IP address, which a listener
/// for neighbours takes for the loss of one.
bool isOfBridge(const nlmsghdr& msg) {
  return msg.nlmsg_type <= RTM_GETNEIGH && msg.nlmsg_type >= RTM_NEWNEIGH &&
         mnl_nlmsg_get_payload_len(&msg) >= sizeof(ndmsg) &&
         static_cast<const ndmsg*>(mnl_nlmsg_get_payload(&msg))->ndm_family == AF_BRIDGE;
}

using Macs = std::set<std::string>;

/// What each socket that hears of neighbours does to hear of some again. Event thread.
std::map<const void*, std::function<void(const Macs&)>>& askers() {
  static std::map<const void*, std::function<void(const Macs&)>> everyone;
  return everyone;
}

}  // namespace

void framework::askForNeighbours(const Macs& macs) {
  for (const auto& [socket, ask] : askers()) ask(macs);
}

struct ZanNetlinkSocket::HostSide {
  unsigned int argument;
  unsigned int groups;        ///< that the socket joins
  std::mutex requestMutex{};  ///< held from a request to its acknowledgement
  std::vector<unsigned char> buffer{};
  framework::NeighbourListing listing{};
  bool neighboursMissing = false;  ///< some were there before the socket, or have been dropped
  Macs wanted{};                   ///< whose neighbours are asked for again
  std::unique_ptr<mnl_socket, CloseSocket> socket{};

  /// The descriptor of a socket that has joined its groups; -1, with a log line, if that fails.
  int open(int protocol);

  [[nodiscard]] bool hearsOfNeighbours() const { return (groups & RTMGRP_NEIGH) != 0; }

  /// Asks for the neighbours that are missing or wanted, if what is older has been read.
  void askForMissing(int fd);

  /// One datagram from the kernel into the buffer, zeroes behind it; recvmsg(2)'s result, and 0
  /// for a datagram that somebody else has sent.
  ssize_t receive(int fd, int flags);
  int awaitAnswer(int fd, std::uint32_t sequence);
};

int ZanNetlinkSocket::HostSide::open(int protocol) {
  socket.reset(mnl_socket_open2(protocol, SOCK_CLOEXEC));
  if (!socket) {
    HOST_LOG(kLogError, "netlink: no socket for protocol %d: %s", protocol, std::strerror(errno));
    return -1;
  }
  if (mnl_socket_bind(socket.get(), groups, MNL_SOCKET_AUTOPID) == -1) {
    HOST_LOG(kLogError, "netlink: cannot join groups 0x%x of protocol %d: %s", groups, protocol,
             std::strerror(errno));
    socket.reset();
    return -1;
  }
  const int fd = mnl_socket_get_fd(socket.get());
  if (protocol == NETLINK_NETFILTER) {
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &kAnswerTimeout, sizeof(kAnswerTimeout));
  }
  return fd;
}

void ZanNetlinkSocket::HostSide::askForMissing(int fd) {
  pollfd older{fd, POLLIN, 0};
  if (!neighboursMissing && wanted.empty()) return;
  if (listing.underWay() || poll(&older, 1, 0) != 0) return;
  Macs macs = std::exchange(wanted, {});
  if (std::exchange(neighboursMissing, false)) macs.clear();
  if (listing.ask(fd, std::move(macs))) return;
  HOST_LOG(kLogWarning, "netlink: cannot ask for the present neighbours: %s", std::strerror(errno));
}

ssize_t ZanNetlinkSocket::HostSide::receive(int fd, int flags) {
  for (;;) {
    sockaddr_nl sender{};
    iovec vector{buffer.data(), buffer.size() - kNetlinkReceiveSlack};
    msghdr message{};
    message.msg_name = &sender;
    message.msg_namelen = sizeof(sender);
    message.msg_iov = &vector;
    message.msg_iovlen = 1;
    const ssize_t received = recvmsg(fd, &message, flags);
    if (received < 0) {
      if (errno == EINTR) continue;
      return received;
    }
    if (sender.nl_pid != 0) {
      HOST_LOG(kLogWarning, "netlink: dropped a message that process %u sent, not the kernel",
               sender.nl_pid);
      return 0;
    }
    if ((message.msg_flags & MSG_TRUNC) != 0) {
      HOST_LOG(kLogError, "netlink: a datagram was longer than %zu bytes and has been cut",
               vector.iov_len);
    }
    std::memset(buffer.data() + received, 0, kNetlinkReceiveSlack);
    return received;
  }
}

/// The errno value, 0 or negative, in the acknowledgement of request |sequence|.
int ZanNetlinkSocket::HostSide::awaitAnswer(int fd, std::uint32_t sequence) {
  for (;;) {
    const ssize_t received = receive(fd, 0);
    if (received < 0 && errno == ENOBUFS) continue;
    if (received < 0) return -errno;
    std::optional<int> answer;
    forEachMessage(buffer, received, [&](const nlmsghdr* msg) {
      if (msg->nlmsg_seq != sequence || msg->nlmsg_type != NLMSG_ERROR) return;
      answer = static_cast<const nlmsgerr*>(mnl_nlmsg_get_payload(msg))->error;
    });
    if (answer) return *answer;
  }
}

ZanNetlinkSocket::ZanNetlinkSocket(int protocol, unsigned int argument)
    : socketFd(-1), side(new HostSide{argument, protocol == NETLINK_ROUTE ? argument : 0}) {
  side->buffer.resize(receiveSizeOf(protocol) + kNetlinkReceiveSlack);
  socketFd = side->open(protocol);
  if (socketFd == -1) return;
  side->neighboursMissing = side->hearsOfNeighbours();
  side->askForMissing(socketFd);
  if (!side->hearsOfNeighbours()) return;
  askers()[this] = [this](const Macs& macs) {
    side->wanted.insert(macs.begin(), macs.end());
    side->askForMissing(socketFd);
  };
}

ZanNetlinkSocket::~ZanNetlinkSocket() {
  if (side->hearsOfNeighbours()) askers().erase(this);
  delete side;
}

int ZanNetlinkSocket::sendConntrackNetlinkMsg(nlmsghdr* msg) {
  framework::DeletionCounters& counters = framework::deletionCounters();
  const std::lock_guard<std::mutex> lock(side->requestMutex);
  ++counters.requested;

  const std::uint32_t sequence = msg->nlmsg_seq;
  const int answer =
      send(socketFd, msg, msg->nlmsg_len, 0) < 0 ? -errno : side->awaitAnswer(socketFd, sequence);
  if (answer == 0) {
    ++counters.deleted;
  } else if (answer == -ENOENT) {
    ++counters.alreadyGone;
  } else {
    ++counters.refused;
    HOST_LOG(kLogWarning, "conntrack request %u of socket user %u was refused: %s", sequence,
             side->argument, std::strerror(-answer));
  }
  counters.setQuietTimer();
  return answer;
}

int ZanNetlinkSocket::NetlinkRecv(unsigned int flags, NlMsgCallback callback, void* cbData) {
  const bool neighbours = side->hearsOfNeighbours();
  const ssize_t received = side->receive(socketFd, static_cast<int>(flags));
  if (received < 0) {
    if (errno == ENOBUFS) {
      if (neighbours) ++framework::notificationCounters().overruns;
      HOST_LOG(kLogWarning, "netlink: receive buffer overrun, the kernel dropped notifications");
      side->neighboursMissing = neighbours;
      side->askForMissing(socketFd);
      errno = ENOBUFS;
    }
    return -1;
  }
  const auto handOn = [&](nlmsghdr* msg) {
    if (neighbours) ++framework::notificationCounters().delivered;
    callback(cbData, msg, msg->nlmsg_len);
  };
  const int count = forEachMessage(side->buffer, received, [&](nlmsghdr* msg) {
    if (neighbours && isOfBridge(*msg)) return;
    if (!side->listing.underWay()) {
      handOn(msg);
      return;
    }
    side->listing.take(*msg);
    if (side->listing.underWay()) return;
    for (framework::NeighbourListing::Message& kept : side->listing.result()) {
      handOn(static_cast<nlmsghdr*>(static_cast<void*>(kept.data())));
    }
  });
  side->askForMissing(socketFd);
  return count;
}

int ZanNetlinkSocket::NetlinkRecvSocketEvent(unsigned int flags, NlMsgCallback callback,
                                             void* cbData) {
  return NetlinkRecv(flags, callback, cbData);
}
