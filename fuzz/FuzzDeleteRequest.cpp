// Delete requests, built again by the netlink library that others use. Input: the tuple and
// the length of the message before it.
#include <libmnl/libmnl.h>
#include <linux/netfilter/nfnetlink_conntrack.h>

#include <cstring>

#include "ctmgr/ZanConnTrackMgr.h"
#include "fuzz/FuzzHost.h"

namespace {

struct Input {
  ZanConnTrackMgr::ctTuple tuple;
  std::uint16_t before;
};

void putTuple(nlmsghdr* msg, const ZanConnTrackMgr::ctTuple& tuple) {
  const bool ipv6 = tuple.l3protonum == AF_INET6;
  nlattr* all = mnl_attr_nest_start(msg, CTA_TUPLE_ORIG);
  nlattr* ip = mnl_attr_nest_start(msg, CTA_TUPLE_IP);
  if (ipv6 || tuple.l3protonum == AF_INET) {
    const std::size_t size = ipv6 ? 16 : 4;
    mnl_attr_put(msg, ipv6 ? CTA_IP_V6_SRC : CTA_IP_V4_SRC, size, tuple.src);
    mnl_attr_put(msg, ipv6 ? CTA_IP_V6_DST : CTA_IP_V4_DST, size, tuple.dst);
  }
  mnl_attr_nest_end(msg, ip);
  nlattr* proto = mnl_attr_nest_start(msg, CTA_TUPLE_PROTO);
  const std::uint8_t number[4] = {tuple.protonum};
  mnl_attr_put(msg, CTA_PROTO_NUM, 4, number);
  if (tuple.protonum == IPPROTO_TCP || tuple.protonum == IPPROTO_UDP) {
    const std::uint16_t ports[] = {tuple.srcPrt, 0, tuple.dstPrt, 0};
    mnl_attr_put(msg, CTA_PROTO_SRC_PORT, 4, ports);
    mnl_attr_put(msg, CTA_PROTO_DST_PORT, 4, ports + 2);
  }
  mnl_attr_nest_end(msg, proto);
  mnl_attr_nest_end(msg, all);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static FuzzHost& host = *new FuzzHost;
  host.host.property = "1";
  static ZanConnTrackMgr& manager = *new ZanConnTrackMgr(host.host.zan);
  static std::uint32_t sequence = 0;
  Input input{};
  std::memcpy(&input, data, std::min(size, sizeof(input)));
  Bytes actual(4096);
  auto* msg = reinterpret_cast<nlmsghdr*>(actual.data());
  const int filled = manager.fillNetlinkHeader(msg, input.tuple.l3protonum);
  require(filled == 0 && msg->nlmsg_len == 20 && msg->nlmsg_seq == ++sequence, "header");
  msg->nlmsg_len += input.before % 4077;
  const std::uint32_t start = NLMSG_ALIGN(msg->nlmsg_len);
  const int result = manager.fillTupleInfo(msg, &input.tuple);
  require(msg->nlmsg_len <= 4096, "limit");
  if (start + 76 > 4096) return 0;

  Bytes expected(4096);
  auto* other = reinterpret_cast<nlmsghdr*>(expected.data());
  *other = {start, 0x0102, 5, sequence, 0};
  expected[sizeof(nlmsghdr)] = input.tuple.l3protonum;
  putTuple(other, input.tuple);
  require(result == 1 && actual == expected, "request");
  return 0;
}
