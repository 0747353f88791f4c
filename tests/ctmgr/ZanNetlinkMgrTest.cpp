// What the neighbour table makes of notifications. A fuzzer compares the walk over their
// attributes with a plain reading.
#include <gtest/gtest.h>
#include <linux/rtnetlink.h>

#include <tuple>

#include "ctmgr/ZanNetlinkMgr.h"
#include "tests/RecordingHost.h"

namespace {

const std::string kMac = "0a:1b:2c:3d:4e:5f";
const Bytes kMacBytes = {0x0a, 0x1b, 0x2c, 0x3d, 0x4e, 0x5f};

Bytes about(const std::string& address, std::uint8_t type = RTM_NEWNEIGH, Bytes mac = kMacBytes) {
  const Bytes bytes = addressBytes(address);
  return neighbourMessage(type, bytes.size() == 4 ? AF_INET : AF_INET6,
                          {{NDA_DST, bytes}, {NDA_LLADDR, mac}});
}

TEST(ZanNetlinkMgrTest, FollowsNotifications) {
  RecordingHost host;
  ZanConnTrackUtils utils{host.zan};
  ZanNetlinkMgr neighbours{host.zan.zanCom, host.zan.zanDsm, utils};
  const std::string says = "\n0 10401 ZanNetlinkMgr::";
  const std::string ipv4 = says + "Ipv4 neighbor Address 10.0.0.5";
  const std::string added = says + "Neighbor Mac Address ";
  const std::string lost = says + "Neighbor Mac Address Memcpy ";
  const std::string nullMac = "00:00:00:00:00:00" + says + "Null MAC address received. Ignore";
  const std::string update = added + kMac + says + "Existing Neighbor Entry. Update Map";
  const std::string long7 = "2001:0db8:0000:0000:0000:0000:0000:0007";
  const std::string ipv6 = says + "Ipv6 neighbor Address 2001:db8::7" +
                           "\n0 10409 ZanNetlinkMgr::Expanded ipv6 Addr " + long7 + "\n";
  const std::string notGlobal = says + "Ipv6 neighbor Address is not global.Ignore and free mem";
  const std::string unknown = says + "neighbor event received with unknown family. Ignore.";
  const std::string known = "10.0.0.5," + long7 + "," + kMac;
  const Bytes noAddress = neighbourMessage(RTM_NEWNEIGH, AF_INET, {{NDA_LLADDR, kMacBytes}});
  // Message, log behind its decoding, and the entry of kMac afterwards.
  const std::tuple<Bytes, std::string, std::string> cases[] = {
      {about("10.0.0.5", RTM_DELNEIGH),
       ipv4 + lost + kMac + says + "Neighbor lost event received on unknown client", ",,"},
      {about("10.0.0.5", RTM_DELNEIGH, Bytes(6)), ipv4 + lost + nullMac, ",,"},
      {about("10.0.0.5", RTM_NEWNEIGH, Bytes(6)), ipv4 + added + nullMac, ",,"},
      {about("2001:db8::7"), ipv6 + added + kMac + says + " New Neighbor Entry received",
       "," + long7 + "," + kMac},
      {about("10.0.0.5"), ipv4 + update, known},
      {about("10.0.0.5", RTM_DELNEIGH),
       ipv4 + lost + kMac + says + "Ignore neighbour lost ip address.", known},
      {about("fe80::1"), notGlobal, known},
      {about("ff0e::1"), notGlobal, known},
      {noAddress, unknown + update, "," + long7 + "," + kMac}};
  for (const auto& [message, log, after] : cases) {
    host.take();
    host.receive(1000, message);
    EXPECT_EQ(host.take(), R"(
NetlinkRecv 0
0 10401 static void ZanNetlinkMgr::HandleNlMsg(void *, struct nlmsghdr *, unsigned int):110
0 10401 ZanNetlinkMgr::neighbor event received: )" +
                               std::to_string(message[4]) + R"(
0 10401 void ZanNetlinkMgr::nlDecodeRtmNeigh(struct nlmsghdr *, unsigned int, zanNlNeighInfo *):246)" +
                               log + "\n");
    const _ZanNeighInfoType entry = neighbours.getNeighInfo(kMac);
    EXPECT_EQ(std::string(entry.ipv4Addr) + "," + entry.ipv6Addr + "," + entry.macAddr, after);
  }
  host.receive(1000, about("10.0.0.6", RTM_NEWROUTE));
  EXPECT_NE(host.take("ZanNetlinkMgr::Ignore netlink event"), "\n");

  host.receive(1000, about("10.0.0.7", RTM_NEWNEIGH, Bytes(6, 9)));
  std::vector<std::string> addresses = {"first"};
  neighbours.getNeighipv4Addresses(addresses);
  EXPECT_EQ(addresses, (std::vector<std::string>{"first", "10.0.0.7", ""}));
  neighbours.delNeighInfoEntry(kMac);
  neighbours.getNeighipv4Addresses(addresses);
  EXPECT_EQ(addresses.size(), 4U);
}

}  // namespace
