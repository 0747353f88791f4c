// The registry of conntrack event listeners and the expansion of addresses.
#include <gtest/gtest.h>
#include <linux/rtnetlink.h>

#include "ctmgr/Log.h"
#include "ctmgr/ZanConnTrackUtils.h"
#include "tests/RecordingHost.h"

namespace {

/// A registry that listeners and the shared socket can be put into.
struct Registry : ZanConnTrackUtils {
  using ZanConnTrackUtils::listeners;
  using ZanConnTrackUtils::nlSocket;
  using ZanConnTrackUtils::nlSockRegistered;
  using ZanConnTrackUtils::ZanConnTrackUtils;

  void open(std::list<NlSockListener> initial) {
    nlSocket = new ZanNetlinkSocket(12, 0);
    nlSockRegistered = true;
    com.addComEventHandler(nlSocket->socketFd, netLinkEventHandler, this, nullptr, 1);
    listeners = std::move(initial);
  }
};

/// Listeners; |data| is the registry, which the second one leaves.
void stay(void* /*data*/, nlmsghdr* msg, unsigned int len) {
  ZAN_LOG(0, 0, "%d %u", static_cast<int>(msg->nlmsg_type), len);
}
void leave(void* data, nlmsghdr* msg, unsigned int len) {
  stay(data, msg, len);
  static_cast<Registry*>(data)->deRegNlSockEvents(leave, data);
}

struct ZanConnTrackUtilsTest : testing::Test {
  RecordingHost host;
  Registry registry{host.zan};
};

TEST_F(ZanConnTrackUtilsTest, RefusesListeners) {
  EXPECT_EQ(registry.regNlSockEvents(stay, this), -1);
  EXPECT_TRUE(registry.listeners.empty());
  EXPECT_EQ(registry.deRegNlSockEvents(stay, this), -1);
  registry.nlSockRegistered = true;
  EXPECT_EQ(registry.deRegNlSockEvents(stay, this), -1);
  EXPECT_EQ(host.take(), R"(
0 10409 ZanConnTrackUtils::ZanConnTrackUtils(Zan &):83
0 10409 ZanConnTrackUtils::ZOLV flag enabled , ZAN netlink functionality is disabled.
0 10409 ZanConnTrackUtils::deRegNlSockEvents nothing to dereg
)");
}

TEST_F(ZanConnTrackUtilsTest, TheLastListenerTakesTheSocketAlong) {
  int a = 0;
  registry.open({{stay, &a}, {stay, &a}});
  EXPECT_FALSE(registry.checkIfConnObjectPresent(stay, this));
  EXPECT_FALSE(registry.checkIfConnObjectPresent(leave, &a));
  host.take();
  EXPECT_EQ(registry.deRegNlSockEvents(stay, &a), 0);
  EXPECT_TRUE(registry.checkIfConnObjectPresent(stay, &a));
  EXPECT_EQ(registry.deRegNlSockEvents(leave, &a), 0);
  EXPECT_EQ(registry.deRegNlSockEvents(stay, &a), 0);
  EXPECT_EQ(registry.deRegNlSockEvents(stay, &a), -1);
  EXPECT_EQ(host.take(), R"(
0 10409 ZanConnTrackUtils::deRegNlSockEvents: iterator address : %p
0 10409 ZanConnTrackUtils::deRegNlSockEvents deleting nlsock, list size = 1
0 10409 ZanConnTrackUtils::deRegNlSockEvents: iterator address : %p
0 10409 ZanConnTrackUtils::deRegNlSockEvents deleting nlsock, list size = 1
0 10409 ZanConnTrackUtils::deRegNlSockEvents: iterator address : %p
0 10409 ZanConnTrackUtils::deRegNlSockEvents deleting nlsock, list size = 0
0 10409 ZanConnTrackUtils::stopNlSockEvents: 1012
removeComEventHandler 1012
~ZanNetlinkSocket 1012
0 10409 ZanConnTrackUtils::deRegNlSockEvents nothing to dereg
)");
  registry.open({});  // without any listener, anybody takes it down
  EXPECT_EQ(registry.deRegNlSockEvents(stay, this), 0);
  EXPECT_EQ(registry.nlSocket, nullptr);
}

TEST_F(ZanConnTrackUtilsTest, FansOutToListenersThatMayLeaveMeanwhile) {
  Registry::HandleNlMsg(nullptr, nullptr, 0);
  registry.open({{leave, &registry}, {nullptr, nullptr}, {stay, &registry}});
  host.take();
  host.receive(1012, neighbourMessage(RTM_NEWNEIGH, 0, {}));
  EXPECT_EQ(host.take("HandleNl|NetlinkRecv|^0 0"), R"(
0 10409 ZanConnTrackUtils::netLinkEventHandler: Calling NetlinkRecvSocketEvent
NetlinkRecvSocketEvent 0
0 10409 ZanConnTrackUtils::HandleNlmsg: iterator address : %p
0 0 28 28
0 10409 ZanConnTrackUtils::HandleNlmsg: iterator address : %p
0 10409 ZanConnTrackUtils::HandleNlmsg: iterator address : %p
0 0 28 28
)");
}

TEST_F(ZanConnTrackUtilsTest, ExpandsIpv6Addresses) {
  const std::pair<std::string, std::string> cases[] = {
      {"fe80::1", "fe80:0000:0000:0000:0000:0000:0000:0001"},
      {"::", "0000:0000:0000:0000:0000:0000:0000:0000"},
      {"2001:DB8:12:345::ABCD", "2001:0db8:0012:0345:0000:0000:0000:abcd"},
      {"::ffff:192.0.2.1", "0000:0000:0000:0000:0000:ffff:c000:0201"},
      {"1.2.3.4", "1.2.3.4"},
      {"abc", "abc"},
      {"fe80::1%eth0", "fe80::1%eth0"}};
  for (auto [text, expanded] : cases) {
    text.resize(kAddressTextSize);
    ZanConnTrackUtils::getIpV6Address(text.data());
    EXPECT_EQ(text.c_str(), expanded);
  }
}

}  // namespace
