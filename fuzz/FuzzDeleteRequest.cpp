// Delete requests, read again by the netlink library that others use. Input: the tuple, the
// length of the message before it and the last sequence number.
#include <libmnl/libmnl.h>
#include <linux/netfilter/nfnetlink.h>

#include <cstring>

#include "ctmgr/ZanConnTrackMgr.h"
#include "fuzz/FuzzHost.h"

namespace {

struct Manager : ZanConnTrackMgr {
  using ZanConnTrackMgr::deleter;
  using ZanConnTrackMgr::ZanConnTrackMgr;
};

struct Input {
  ZanConnTrackMgr::ctTuple tuple;
  std::uint16_t before;
  std::uint32_t sequence;
};

std::string shown(int type, std::size_t length, const std::string& content) {
  return std::to_string(type) + ' ' + std::to_string(length) + " {" + content + '}';
}

/// Shows each attribute with its type, its length and what is in it.
int show(const nlattr* attribute, void* data) {
  std::string content(static_cast<const char*>(mnl_attr_get_payload(attribute)),
                      mnl_attr_get_payload_len(attribute));
  if ((attribute->nla_type & NLA_F_NESTED) != 0) {
    content.clear();
    mnl_attr_parse_nested(attribute, show, &content);
  }
  *static_cast<std::string*>(data) += shown(attribute->nla_type, attribute->nla_len, content);
  return MNL_CB_OK;
}

/// A leaf whose content is |value| and zeroes behind it.
template <typename Value>
std::string leaf(int type, const Value& value, std::size_t size = 4) {
  std::string content(size, '\0');
  std::memcpy(content.data(), &value, std::min(size, sizeof(value)));
  return shown(type, 4 + size, content);
}

std::string expected(const ZanConnTrackMgr::ctTuple& tuple) {
  const bool ipv4 = tuple.l3protonum == 2;
  const bool ipv6 = tuple.l3protonum == 10;
  const bool ports = tuple.protonum == 6 || tuple.protonum == 17;
  const std::size_t ipLength = ipv6 ? 44 : ipv4 ? 20 : 4;
  const std::size_t protoLength = ports ? 28 : 12;
  std::string ip;
  if (ipv4) ip = leaf(1, tuple.src) + leaf(2, tuple.dst);
  if (ipv6) ip = leaf(3, tuple.src, 16) + leaf(4, tuple.dst, 16);
  std::string proto = leaf(1, tuple.protonum);
  if (ports) proto += leaf(2, tuple.srcPrt) + leaf(3, tuple.dstPrt);
  return shown(0x8001, 4 + ipLength + protoLength,
               shown(0x8001, ipLength, ip) + shown(0x8002, protoLength, proto));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static FuzzHost& host = *new FuzzHost;
  host.host.property = "1";
  static Manager& manager = *new Manager(host.host.zan);
  Input input{};
  std::memcpy(&input, data, std::min(size, sizeof(input)));
  const auto buffer = std::make_unique<std::uint8_t[]>(4096);
  auto* msg = reinterpret_cast<nlmsghdr*>(buffer.get());
  manager.deleter->deleteSeq = input.sequence;
  require(manager.fillNetlinkHeader(msg, input.tuple.l3protonum) == 0, "result of the header");
  const nlmsghdr header{20, 0x0102, 5, input.sequence + 1, 0};
  const nfgenmsg family{input.tuple.l3protonum, 0, 0};
  require(std::memcmp(msg, &header, sizeof(header)) == 0, "message header");
  require(std::memcmp(msg + 1, &family, sizeof(family)) == 0, "family header");
  msg->nlmsg_len += input.before % 4077;
  const std::uint32_t start = NLMSG_ALIGN(msg->nlmsg_len);
  const int result = manager.fillTupleInfo(msg, &input.tuple);
  require(msg->nlmsg_len <= 4096, "limit");
  if (start + 76 > 4096) return 0;
  std::string actual;
  mnl_attr_parse_payload(buffer.get() + start, msg->nlmsg_len - start, show, &actual);
  require(result == 1 && actual == expected(input.tuple), "tuple");
  require(msg->nlmsg_len - start == reinterpret_cast<nlattr*>(buffer.get() + start)->nla_len,
          "length");
  return 0;
}
