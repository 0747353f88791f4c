// The framework's netlink socket.
#pragma once

#include <linux/netlink.h>

#include "host/Agreement.h"

/// Receives one netlink message. |msg| is borrowed for the call and |len| is its nlmsg_len.
///
/// Behind the last message of a buffer lie kNetlinkReceiveSlack more readable bytes, all zero, so
/// that a decoder may copy fixed-size payloads out of short messages.
using NlMsgCallback = void (*)(void* cbData, nlmsghdr* msg, unsigned int len);

/// One netlink socket of the calling process.
class ZanNetlinkSocket {
 public:
  /// Opens a socket of |protocol| (linux/netlink.h). |argument| depends on it:
  ///   NETLINK_ROUTE (0)       mask of RTMGRP_ multicast groups to join (linux/rtnetlink.h)
  ///   NETLINK_NETFILTER (12)  a tag that names the user of the socket in the framework's log;
  ///                           no group is joined, the socket only carries requests
  /// After a failure socketFd is -1 and the other operations fail.
  ZanNetlinkSocket(int protocol, unsigned int argument);

  /// Takes the descriptor out of the event loop, whose users need not, and closes it.
  ~ZanNetlinkSocket();
  ZanNetlinkSocket(const ZanNetlinkSocket&) = delete;
  ZanNetlinkSocket& operator=(const ZanNetlinkSocket&) = delete;

  /// Sends |msg|, a complete nfnetlink request that asks for an acknowledgement, and reads that
  /// acknowledgement. Any thread; calls on one socket take turns. Returns 0 when the kernel
  /// carried the request out, otherwise a negative errno value (-ENOENT: no such entry).
  int sendConntrackNetlinkMsg(nlmsghdr* msg);

  /// Reads once from the socket, |flags| being those of recv(2), and calls |callback| for every
  /// message of what was read. Event thread. Returns the number of messages, or -1 with errno
  /// set; ENOBUFS says that the kernel had to drop messages and that reading can go on.
  int NetlinkRecv(unsigned int flags, NlMsgCallback callback, void* cbData);

  /// The same for sockets that carry conntrack events.
  int NetlinkRecvSocketEvent(unsigned int flags, NlMsgCallback callback, void* cbData);

  /// First field of the object: whoever registers the socket with an event loop reads it there.
  int socketFd;

 private:
  struct HostSide;  ///< what only the framework knows of it
  HostSide* side;
};
