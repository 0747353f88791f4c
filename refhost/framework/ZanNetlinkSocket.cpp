#include "host/ZanNetlinkSocket.h"

#include <linux/rtnetlink.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <mutex>
#include <optional>
#include <vector>

#include "refhost/framework/EventLoop.h"
#include "refhost/framework/HostLog.h"
#include "refhost/framework/NeighbourListing.h"
#include "refhost/framework/NetlinkCounters.h"
#include "refhost/framework/NetlinkMessages.h"

namespace {

/// Bytes to read at once: no notification or part of a dump is longer than 32 KiB (NLMSG_GOODSIZE
/// in the kernel's linux/netlink.h), and an acknowledgement of a conntrack request, which brings
/// the request back, not longer than 8 KiB.
std::size_t receiveSizeOf(int protocol) {
  return protocol == NETLINK_NETFILTER ? 8192 : 32768;
}

/// The kernel answers a request before sendto(2) returns; who waits longer waits in vain.
constexpr timeval kAnswerTimeout{1, 0};

/// The multicast groups that a socket joins.
unsigned int groupsOf(int protocol, unsigned int argument) {
  return protocol == NETLINK_ROUTE ? argument : 0;
}

bool sentByKernel(const sockaddr_nl& sender) {
  return sender.nl_pid == 0;
}

}  // namespace

struct ZanNetlinkSocket::HostSide {
  int protocol;
  unsigned int argument;
  std::mutex requestMutex;  ///< held from a request to its acknowledgement
  std::vector<unsigned char> buffer;
  framework::NeighbourListing listing;
  bool neighboursMissing;  ///< some were there before the socket, or have been dropped

  [[nodiscard]] bool hearsOfNeighbours() const {
    return (groupsOf(protocol, argument) & RTMGRP_NEIGH) != 0;
  }

  /// Asks for all neighbours, if some are missing and what is older has been read.
  void askForMissing(int fd);

  /// One datagram from the kernel into the buffer, zeroes behind it; recvmsg(2)'s result, and 0
  /// for a datagram that somebody else has sent.
  ssize_t receive(int fd, int flags);
  int awaitAnswer(int fd, std::uint32_t sequence);
};

void ZanNetlinkSocket::HostSide::askForMissing(int fd) {
  pollfd older{fd, POLLIN, 0};
  if (!neighboursMissing || listing.underWay() || poll(&older, 1, 0) != 0) return;
  neighboursMissing = false;
  if (listing.ask(fd)) return;
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
    if (!sentByKernel(sender)) {
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
    framework::forEachNetlinkMessage(
        buffer.data(), static_cast<std::size_t>(received), [&](nlmsghdr* msg) {
          if (msg->nlmsg_seq != sequence || msg->nlmsg_type != NLMSG_ERROR) return;
          answer = framework::netlinkPayload<nlmsgerr>(msg)->error;
        });
    if (answer) return *answer;
  }
}

ZanNetlinkSocket::ZanNetlinkSocket(int protocol, unsigned int argument)
    : socketFd(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, protocol)),
      side(new HostSide{protocol, argument, {}, {}, {}, false}) {
  side->buffer.resize(receiveSizeOf(protocol) + kNetlinkReceiveSlack);
  if (socketFd == -1) {
    HOST_LOG(kLogError, "netlink: no socket for protocol %d: %s", protocol, std::strerror(errno));
    return;
  }
  sockaddr_nl own{};
  own.nl_family = AF_NETLINK;
  own.nl_groups = groupsOf(protocol, argument);
  if (bind(socketFd, reinterpret_cast<const sockaddr*>(&own), sizeof(own)) == -1) {
    HOST_LOG(kLogError, "netlink: cannot join groups 0x%x of protocol %d: %s", own.nl_groups,
             protocol, std::strerror(errno));
    close(socketFd);
    socketFd = -1;
    return;
  }
  if (protocol == NETLINK_NETFILTER) {
    setsockopt(socketFd, SOL_SOCKET, SO_RCVTIMEO, &kAnswerTimeout, sizeof(kAnswerTimeout));
  }
  side->neighboursMissing = side->hearsOfNeighbours();
  side->askForMissing(socketFd);
}

ZanNetlinkSocket::~ZanNetlinkSocket() {
  if (socketFd != -1) {
    framework::EventLoop::descriptorClosing(socketFd);
    close(socketFd);
  }
  delete side;
}

int ZanNetlinkSocket::sendConntrackNetlinkMsg(nlmsghdr* msg) {
  framework::DeletionCounters& counters = framework::deletionCounters();
  const std::lock_guard<std::mutex> lock(side->requestMutex);
  ++counters.requested;

  sockaddr_nl kernel{};
  kernel.nl_family = AF_NETLINK;
  const std::uint32_t sequence = msg->nlmsg_seq;
  const ssize_t sent = sendto(socketFd, msg, msg->nlmsg_len, 0,
                              reinterpret_cast<const sockaddr*>(&kernel), sizeof(kernel));
  const int answer = sent < 0 ? -errno : side->awaitAnswer(socketFd, sequence);
  if (answer == 0) {
    ++counters.deleted;
  } else if (answer == -ENOENT) {
    ++counters.alreadyGone;
  } else {
    ++counters.refused;
    HOST_LOG(kLogWarning, "conntrack request %u of socket user %u was refused: %s", sequence,
             side->argument, std::strerror(-answer));
  }
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
  const int count = framework::forEachNetlinkMessage(
      side->buffer.data(), static_cast<std::size_t>(received), [&](nlmsghdr* msg) {
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
