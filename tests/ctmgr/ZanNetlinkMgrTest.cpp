// What the neighbour table makes of notifications.
#include <gtest/gtest.h>
#include <linux/rtnetlink.h>

#include <tuple>

#include "ctmgr/ZanNetlinkMgr.h"
#include "tests/RecordingHost.h"

namespace {

const std::string kMac = "0a:1b:2c:3d:4e:5f";
const Bytes kMacBytes = {0x0a, 0x1b, 0x2c, 0x3d, 0x4e, 0x5f};
const Bytes k5 = addressBytes("10.0.0.5");
const Bytes k6 = addressBytes("10.0.0.6");

Bytes about(const std::string& address, std::uint8_t type = RTM_NEWNEIGH, Bytes mac = kMacBytes) {
  const Bytes bytes = addressBytes(address);
  return neighbourMessage(type, bytes.size() == k5.size() ? AF_INET : AF_INET6,
                          {{NDA_DST, bytes}, {NDA_LLADDR, mac}});
}

Bytes with(const std::vector<std::pair<std::uint8_t, Bytes>>& attributes) {
  return neighbourMessage(RTM_NEWNEIGH, AF_INET, attributes);
}

struct ZanNetlinkMgrTest : testing::Test {
  RecordingHost host;
  ZanConnTrackUtils utils{host.zan};
  ZanNetlinkMgr neighbours{host.zan.zanCom, host.zan.zanDsm, utils};

  std::string entry(const std::string& mac) {
    const _ZanNeighInfoType info = neighbours.getNeighInfo(mac);
    return std::string(info.ipv4Addr) + "," + info.ipv6Addr + "," + info.macAddr;
  }

  /// |log|: what |message| makes it log behind its decoding; |after|: the entry of kMac.
  void expect(const Bytes& message, const std::string& log, const std::string& after) {
    host.take();
    host.receive(1000, message);
    EXPECT_EQ(host.take(), R"(
NetlinkRecv 0
0 10401 static void ZanNetlinkMgr::HandleNlMsg(void *, struct nlmsghdr *, unsigned int):110
0 10401 ZanNetlinkMgr::neighbor event received: )" +
                               std::to_string(message[4]) + R"(
0 10401 void ZanNetlinkMgr::nlDecodeRtmNeigh(struct nlmsghdr *, unsigned int, zanNlNeighInfo *):246)" +
                               log + "\n");
    EXPECT_EQ(entry(kMac), after);
  }
};

TEST_F(ZanNetlinkMgrTest, FollowsNotifications) {
  const std::string says = "\n0 10401 ZanNetlinkMgr::";
  const std::string ipv4 = says + "Ipv4 neighbor Address 10.0.0.5";
  const std::string added = says + "Neighbor Mac Address ";
  const std::string lost = says + "Neighbor Mac Address Memcpy ";
  const std::string nullMac = "00:00:00:00:00:00" + says + "Null MAC address received. Ignore";
  const std::string update = added + kMac + says + "Existing Neighbor Entry. Update Map";
  const std::string long7 = "2001:0db8:0000:0000:0000:0000:0000:0007";
  const std::string known = "10.0.0.5," + long7 + "," + kMac;
  const std::string expansion = "\n0 10409 ZanNetlinkMgr::Expanded ipv6 Addr " + long7 + "\n";
  const std::string unknown = says + "neighbor event received with unknown family. Ignore.";
  expect(about("10.0.0.5", RTM_DELNEIGH),
         ipv4 + lost + kMac + says + "Neighbor lost event received on unknown client", ",,");
  expect(about("10.0.0.5", RTM_DELNEIGH, Bytes(6)), ipv4 + lost + nullMac, ",,");
  expect(with({{NDA_DST, k5}}), ipv4 + added + nullMac, ",,");
  expect(about("2001:db8::7"),
         says + "Ipv6 neighbor Address 2001:db8::7" + expansion + added + kMac + says +
             " New Neighbor Entry received",
         "," + long7 + "," + kMac);
  expect(about("10.0.0.5"), ipv4 + update, known);
  expect(about("10.0.0.5", RTM_DELNEIGH),
         ipv4 + lost + kMac + says + "Ignore neighbour lost ip address.", known);
  for (const char* local : {"fe80::1", "febf::1", "fec0::1", "feff::1", "ff0e::1"}) {
    expect(about(local), says + "Ipv6 neighbor Address is not global.Ignore and free mem", known);
  }
  expect(with({{NDA_LLADDR, kMacBytes}}), unknown + update, "," + long7 + "," + kMac);
  for (const char* global : {"::", "::1", "fc00::1", "fe7f::1", "fdff::1"}) {
    host.receive(1000, about(global));
    EXPECT_EQ(addressBytes(neighbours.getNeighInfo(kMac).ipv6Addr), addressBytes(global));
  }
  host.receive(1000, about("10.0.0.6", RTM_NEWROUTE));
  EXPECT_NE(host.take("ZanNetlinkMgr::Ignore netlink event"), "\n");
  EXPECT_EQ(entry(kMac).front(), ',');
}

TEST_F(ZanNetlinkMgrTest, WalksTheAttributes) {
  Bytes damaged = with({{NDA_LLADDR, kMacBytes}, {NDA_DST, k5}});
  damaged[40] = 3;  // shorter than a header; then longer than what is left
  Bytes tooLong = damaged;
  tooLong[40] = 21;
  Bytes two = with({{NDA_DST, k5}, {NDA_LLADDR, {10, 27}}});
  const Bytes second = about("10.0.0.6");
  two.insert(two.end(), second.begin(), second.end());
  const Bytes many = with({{NDA_DST, k6},
                           {NDA_LLADDR, Bytes(6, 1)},
                           {NDA_PROBES, Bytes(3)},
                           {NDA_LLADDR, kMacBytes},
                           {NDA_DST, k5}});
  Bytes bridge = about("10.0.0.5");
  bridge[16] = AF_BRIDGE;
  // A short payload goes on into its padding and what follows, here the next message's length.
  const std::tuple<Bytes, std::string, std::string> cases[] = {
      {many, kMac, "10.0.0.5,,"}, {damaged, kMac, ",,"},
      {tooLong, kMac, ",,"},      {bridge, kMac, ",,"},
      {two, kMac, "10.0.0.6,,"},  {two, "0a:1b:00:00:30:00", "10.0.0.5,,"}};
  for (const auto& [messages, mac, addresses] : cases) {
    neighbours.delNeighInfoEntry(kMac);
    host.receive(1000, messages);
    EXPECT_EQ(entry(mac), addresses + mac);
  }
}

TEST_F(ZanNetlinkMgrTest, BudgetsTheAttributes) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  Bytes message = with({{NDA_DST, k5}, {NDA_LLADDR, kMacBytes}});
  message.resize(message.size() + kNetlinkReceiveSlack);
  auto* msg = static_cast<nlmsghdr*>(static_cast<void*>(message.data()));
  const auto handle = [&](unsigned int len) { ZanNetlinkMgr::HandleNlMsg(&neighbours, msg, len); };
  handle(16);
  handle(33);  // 12 bytes more are read, one too few for the link-layer address
  EXPECT_EQ(entry(kMac), ",,");
  handle(36);
  EXPECT_EQ(entry(kMac), "10.0.0.5,," + kMac);
  EXPECT_DEATH(handle(15), "");
  EXPECT_DEATH(handle(34), "");  // fits, but for its padding
}

TEST_F(ZanNetlinkMgrTest, ReadsAndPrunesTheTable) {
  std::vector<std::string> addresses = {"first"};
  host.receive(1000, about("10.0.0.5"));
  host.receive(1000, with({{NDA_LLADDR, Bytes(6, 1)}}));
  neighbours.getNeighipv4Addresses(addresses);
  EXPECT_EQ(addresses, (std::vector<std::string>{"first", "", "10.0.0.5"}));
  neighbours.delNeighInfoEntry("01:01:01:01:01:01");
  neighbours.delNeighInfoEntry("unknown");
  neighbours.getNeighipv4Addresses(addresses);
  EXPECT_EQ(addresses.size(), 4U);
}

}  // namespace
