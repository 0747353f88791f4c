// The registry of conntrack event listeners.
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

TEST(ZanConnTrackUtilsTest, RefusesListenersAndLetsThemGo) {
  RecordingHost host;
  Registry registry{host.zan};
  EXPECT_EQ(registry.regNlSockEvents(stay, this), -1);
  EXPECT_EQ(registry.deRegNlSockEvents(stay, this), -1);
  registry.nlSockRegistered = true;
  EXPECT_EQ(registry.deRegNlSockEvents(stay, this), -1);
  EXPECT_EQ(host.take(), R"(
0 10409 ZanConnTrackUtils::ZanConnTrackUtils(Zan &):83
0 10409 ZanConnTrackUtils::ZOLV flag enabled , ZAN netlink functionality is disabled.
0 10409 ZanConnTrackUtils::deRegNlSockEvents nothing to dereg
)");
  Registry::HandleNlMsg(nullptr, nullptr, 0);
  // Listeners may leave meanwhile, and the last one takes the socket along.
  registry.open({{leave, &registry}, {nullptr, nullptr}, {stay, &registry}});
  host.take();
  host.receive(1012, neighbourMessage(RTM_NEWNEIGH, 0, {}));
  registry.deRegNlSockEvents(nullptr, nullptr);
  EXPECT_TRUE(registry.checkIfConnObjectPresent(stay, &registry));
  EXPECT_FALSE(registry.checkIfConnObjectPresent(stay, this));
  EXPECT_FALSE(registry.checkIfConnObjectPresent(leave, &registry));
  EXPECT_EQ(registry.deRegNlSockEvents(stay, this), 0);
  EXPECT_EQ(registry.deRegNlSockEvents(stay, &registry), 0);
  EXPECT_EQ(registry.nlSocket, nullptr);
  const std::string says = "0 10409 ZanConnTrackUtils::";
  const std::string heard = says + "HandleNlmsg: iterator address : %p\n";
  const std::string tried = says + "deRegNlSockEvents: iterator address : %p\n";
  const std::string left = says + "deRegNlSockEvents deleting nlsock, list size = ";
  EXPECT_EQ(host.take(), "\n" + says + "netLinkEventHandler: Calling NetlinkRecvSocketEvent\n" +
                             "NetlinkRecvSocketEvent 0\n" + heard + "0 0 28 28\n" + tried + left +
                             "2\n" + heard + heard + "0 0 28 28\n" + tried + left + "1\n" + tried +
                             left + "1\n" + tried + left + "0\n" + says +
                             "stopNlSockEvents: 1012\nremoveComEventHandler 1012\n" +
                             "~ZanNetlinkSocket 1012\n");
  registry.open({});  // without any listener, anybody takes it down
  EXPECT_EQ(registry.deRegNlSockEvents(stay, this), 0);
}

}  // namespace
