// Delete requests. A fuzzer reads every request again
// with the netlink library that others use.
#include <gmock/gmock.h>

#include "ctmgr/ConntrackDeleter.h"
#include "tests/RecordingHost.h"

namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::SizeIs;

struct ConntrackDeleterTest : testing::Test {
  RecordingHost host;
  ZanNetlinkSocket& socket = *new ZanNetlinkSocket(NETLINK_NETFILTER, 0);  // the host frees it
  ConntrackDeleter deleter;

  void SetUp() override { deleter.conntrackSocket = &socket; }
};

const ZanConnTrackFilter_s kTcpOverIpv4 = {AF_INET,           40000,      443, {192, 0, 2, 1},
                                           {198, 51, 100, 7}, IPPROTO_TCP};
const ZanConnTrackFilter_s kUdpOverIpv6 = {
    AF_INET6, 9, 53, {32, 1, 13, 184, 1, 0, 0, 0, 2, 0, 0, 0, 3}, {4, 0, 0, 0, 5}, IPPROTO_UDP};

TEST_F(ConntrackDeleterTest, ARequestHoldsTheTupleInNetworkByteOrder) {
  deleter.deleteV4({kTcpOverIpv4});
  // The layout is drawn above appendTuple().
  const Bytes request = {72, 0, 0, 0, 2, 1, 5, 0, 1, 0, 0, 0, 0, 0, 0, 0,  // delete, acknowledge,
                                                                           // 1
                         2, 0, 0, 0, 52, 0, 1, 128,                        // IPv4, a tuple
                         20, 0, 1, 128, 8, 0, 1, 0, 192, 0, 2, 1, 8, 0, 2, 0, 198, 51, 100,
                         7,                                                            // addresses
                         28, 0, 2, 128, 8, 0, 1, 0, 6, 0, 0, 0,                        // TCP
                         8, 0, 2, 0, 0x9c, 0x40, 0, 0, 8, 0, 3, 0, 0x01, 0xbb, 0, 0};  // ports
  ASSERT_THAT(host.requests(), SizeIs(1));
  EXPECT_THAT(host.requests()[0], ElementsAreArray(request));
}

TEST_F(ConntrackDeleterTest, AnIpv6RequestHoldsWholeAddressesAndTheNextNumber) {
  constexpr std::size_t kSequence = 8;
  constexpr std::size_t kSource = 32;
  constexpr std::size_t kDestination = 52;
  deleter.deleteV4({kTcpOverIpv4});
  deleter.deleteV6({kUdpOverIpv6});
  ASSERT_THAT(host.requests(), SizeIs(2));
  const Bytes request = host.requests()[1];
  EXPECT_EQ(request[kSequence], 2);
  EXPECT_THAT(Bytes(&request[kSource], &request[kSource + 16]), ElementsAreArray(kUdpOverIpv6.src));
  EXPECT_THAT(Bytes(&request[kDestination], &request[kDestination + 16]),
              ElementsAreArray(kUdpOverIpv6.dest));
}

TEST_F(ConntrackDeleterTest, LogsTheTupleAsItStandsInTheRequest) {
  deleter.deleteV4({kTcpOverIpv4});
  deleter.deleteV6({kUdpOverIpv6});
  EXPECT_THAT(host.logged("Entry src"),
              ElementsAre("0 10409 DeleteV4Entry src: 16908480, dst: 124007366 srcPrt 16540, "
                          "dstPrt 47873, protonum 6 l3protonum 2",
                          "0 10409 DeleteV6Entry src: 3087860000, dst: 1, srcPrt 2, dstPrt 3, "
                          "protonum 4 l3protonum 5"));
}

}  // namespace
