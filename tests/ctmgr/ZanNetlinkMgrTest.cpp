// The neighbour table. What it makes of any notification a fuzzer compares with a plain reading.
#include <gmock/gmock.h>
#include <linux/rtnetlink.h>

#include "ctmgr/ZanNetlinkMgr.h"
#include "tests/RecordingHost.h"

namespace {

using testing::ElementsAre;
using testing::SizeIs;

const std::string kMac = "0a:1b:2c:3d:4e:5f";
const Bytes kMacBytes = {0x0a, 0x1b, 0x2c, 0x3d, 0x4e, 0x5f};

struct ZanNetlinkMgrTest : testing::Test {
  RecordingHost host;
  ZanConnTrackUtils utils{host.zan};
  ZanNetlinkMgr neighbours{host.zan.zanCom, host.zan.zanDsm, utils};

  void announce(const std::string& address, const Bytes& mac = kMacBytes) {
    host.receive(kNeighbourSocket, neighbourMessage(RTM_NEWNEIGH, address, mac));
  }
  void lose(const std::string& address) {
    host.receive(kNeighbourSocket, neighbourMessage(RTM_DELNEIGH, address, kMacBytes));
  }
  std::string ipv4() { return neighbours.getNeighInfo(kMac).ipv4Addr; }
};

TEST_F(ZanNetlinkMgrTest, LeavesOutOtherMessages) {
  host.receive(kNeighbourSocket, neighbourMessage(RTM_NEWROUTE, "10.0.0.5", kMacBytes));
  EXPECT_THAT(host.logged("ZanNetlinkMgr::Ignore netlink event"), SizeIs(1));
}

TEST_F(ZanNetlinkMgrTest, KeepsALostNeighbourWhoseConnectionsAreStillToBeFlushed) {
  announce("10.0.0.5");
  lose("10.0.0.5");
  EXPECT_EQ(ipv4(), "10.0.0.5");
}

TEST_F(ZanNetlinkMgrTest, ListsIpv4TextsInMacOrderBehindWhatIsThere) {
  announce("2001:db8::7");
  announce("10.0.0.6", {0, 0, 0, 0, 0, 1});
  Lines addresses = {"first"};
  neighbours.getNeighipv4Addresses(addresses);
  EXPECT_THAT(addresses, ElementsAre("first", "10.0.0.6", ""));
}

TEST_F(ZanNetlinkMgrTest, LogsTheStepsOfANotificationInOrder) {
  host.forget();
  announce("2001:db8::7");
  EXPECT_THAT(
      host.record(),
      ElementsAre(
          "NetlinkRecv 0",
          "0 10401 static void ZanNetlinkMgr::HandleNlMsg(void *, struct nlmsghdr *, unsigned "
          "int):110",
          "0 10401 ZanNetlinkMgr::neighbor event received: 28",
          "0 10401 void ZanNetlinkMgr::nlDecodeRtmNeigh(struct nlmsghdr *, unsigned int, "
          "zanNlNeighInfo *):246",
          "0 10401 ZanNetlinkMgr::Ipv6 neighbor Address 2001:db8::7",
          "0 10409 ZanNetlinkMgr::Expanded ipv6 Addr 2001:0db8:0000:0000:0000:0000:0000:0007\n",
          "0 10401 ZanNetlinkMgr::Neighbor Mac Address 0a:1b:2c:3d:4e:5f",
          "0 10401 ZanNetlinkMgr:: New Neighbor Entry received"));
}

}  // namespace
