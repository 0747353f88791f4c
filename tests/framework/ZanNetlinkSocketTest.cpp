// Whom a netlink socket believes.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include "host/ZanNetlinkSocket.h"

namespace {

// Over NETLINK_USERSOCK a process may write to another without any privilege.
TEST(ZanNetlinkSocket, DropsAMessageThatTheKernelDidNotSend) {
  ZanNetlinkSocket socket(NETLINK_USERSOCK, 0);
  const ZanNetlinkSocket stranger(NETLINK_USERSOCK, 0);
  if (socket.socketFd == -1) GTEST_SKIP() << "cannot run here: the emulator has no such sockets";
  sockaddr_nl address{};
  socklen_t length = sizeof(address);
  auto* const receiver = reinterpret_cast<sockaddr*>(&address);
  ASSERT_EQ(getsockname(socket.socketFd, receiver, &length), 0);
  nlmsghdr message{};
  message.nlmsg_len = sizeof(message);
  ASSERT_EQ(sendto(stranger.socketFd, &message, sizeof(message), 0, receiver, length),
            static_cast<ssize_t>(sizeof(message)));

  const auto take = [](void*, nlmsghdr*, unsigned int) { ADD_FAILURE() << "handed on"; };
  EXPECT_EQ(socket.NetlinkRecv(MSG_DONTWAIT, take, nullptr), 0);
}

}  // namespace
