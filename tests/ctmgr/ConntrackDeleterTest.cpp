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
  ctmgr::ConntrackDeleter deleter;

  void SetUp() override { deleter.conntrackSocket = &socket; }
};

const ZanConnTrackFilter_s kTcpOverIpv4 = {AF_INET,           40000,      443, {192, 0, 2, 1},
                                           {198, 51, 100, 7}, IPPROTO_TCP};
const ZanConnTrackFilter_s kUdpOverIpv6 = {
    AF_INET6, 9, 53, {32, 1, 13, 184, 1, 0, 0, 0, 2, 0, 0, 0, 3}, {4, 0, 0, 0, 5}, IPPROTO_UDP};

TEST_F(ConntrackDeleterTest, ARequestHoldsItsNumberAndTheWholeTupleInNetworkByteOrder) {
  constexpr std::size_t kSequence = 8;
  constexpr std::size_t kSource = 32;
  constexpr std::size_t kDestination = 52;
  constexpr std::size_t kSourcePort = 84;
  constexpr std::size_t kDestinationPort = 92;
  deleter.deleteV4({kTcpOverIpv4});
  deleter.deleteV6({kUdpOverIpv6});
  ASSERT_THAT(host.requests(), SizeIs(2));
  const Bytes request = host.requests()[1];
  const auto bytes = [&](std::size_t at, std::size_t size) {
    return Bytes(&request[at], &request[at] + size);
  };
  EXPECT_EQ(request[kSequence], 2);
  EXPECT_THAT(bytes(kSource, 16), ElementsAreArray(kUdpOverIpv6.src));
  EXPECT_THAT(bytes(kDestination, 16), ElementsAreArray(kUdpOverIpv6.dest));
  EXPECT_THAT(bytes(kSourcePort, 2), ElementsAre(0, 9));
  EXPECT_THAT(bytes(kDestinationPort, 2), ElementsAre(0, 53));
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
