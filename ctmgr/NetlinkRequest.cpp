#include "ctmgr/NetlinkRequest.h"

#include <linux/netfilter/nf_conntrack_common.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_conntrack.h>
#include <netinet/in.h>

#include <cstring>

#include "ctmgr/CheckedArithmetic.h"
#include "ctmgr/Log.h"

namespace ctmgr {

namespace {

constexpr unsigned int kHeaderLength = sizeof(nlattr);

unsigned char* bytesOf(void* object) {
  return static_cast<unsigned char*>(object);
}

}  // namespace

nlattr* appendAttribute(nlmsghdr* msg, std::uint16_t type, std::size_t payloadLength,
                        const void* value, std::size_t valueLength) {
  const auto length = checkedAdd(kHeaderLength, static_cast<unsigned int>(payloadLength));
  const unsigned int start = checkedAlign4(msg->nlmsg_len);
  const unsigned int end = checkedAdd(start, length);
  if (end > DELETE_MSG_MAX_LEN) {
    ZAN_LOG(ZAN_LOG_MODULE_CT_MGR, kLogError, "addattr_l failed - exceeded maxLen: %d > %d",
            static_cast<int>(end), static_cast<int>(DELETE_MSG_MAX_LEN));
    return nullptr;
  }
  auto* attribute = static_cast<nlattr*>(static_cast<void*>(bytesOf(msg) + start));
  attribute->nla_len = static_cast<std::uint16_t>(length);
  attribute->nla_type = type;
  if (valueLength != 0) std::memcpy(bytesOf(msg) + start + kHeaderLength, value, valueLength);
  msg->nlmsg_len = end;
  return attribute;
}

nlattr* openNest(nlmsghdr* msg, std::uint16_t type) {
  return appendAttribute(msg, type, 0, nullptr, 0);
}

void closeNest(nlmsghdr* msg, nlattr* nest) {
  const auto offset = static_cast<unsigned int>(bytesOf(nest) - bytesOf(msg));
  nest->nla_len = static_cast<std::uint16_t>(checkedSub(checkedAlign4(msg->nlmsg_len), offset));
}

void fillDeleteHeader(nlmsghdr* msg, std::uint8_t family, std::uint32_t sequence) {
  msg->nlmsg_len = sizeof(nlmsghdr) + sizeof(nfgenmsg);
  msg->nlmsg_type = NFNL_SUBSYS_CTNETLINK << 8 | IPCTNL_MSG_CT_DELETE;
  msg->nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK;
  msg->nlmsg_seq = sequence;
  msg->nlmsg_pid = 0;
  auto* header = static_cast<nfgenmsg*>(static_cast<void*>(msg + 1));
  header->nfgen_family = family;
  header->version = NFNETLINK_V0;
  header->res_id = 0;
}

// A delete request, offsets for IPv4 / IPv6 (linux/netfilter/nfnetlink_conntrack.h):
//
//    0       nlmsghdr   length 72 / 96
//   16       nfgenmsg   family
//   20       CTA_TUPLE_ORIG        nest, length 52 / 76
//   24         CTA_TUPLE_IP        nest, length 20 / 44
//   28           CTA_IP_V4_SRC     4 bytes       / CTA_IP_V6_SRC   16 bytes
//   36 / 48      CTA_IP_V4_DST     4 bytes       / CTA_IP_V6_DST   16 bytes
//   44 / 68    CTA_TUPLE_PROTO     nest, length 28
//   48 / 72      CTA_PROTO_NUM       u8  + 3 bytes of zeroes
//   56 / 80      CTA_PROTO_SRC_PORT  u16 + 2 bytes of zeroes, network byte order
//   64 / 88      CTA_PROTO_DST_PORT  u16 + 2 bytes of zeroes, network byte order
//
// The three protocol attributes declare their zeroes as payload: length 8 each.
bool appendTuple(nlmsghdr* msg, const ConntrackTuple& tuple) {
  constexpr std::size_t kProtoPayload = 4;
  nlattr* nestOrig = openNest(msg, CTA_TUPLE_ORIG | NLA_F_NESTED);
  if (nestOrig == nullptr) {
    ZAN_LOG(ZAN_LOG_MODULE_CT_MGR, kLogError, "nestOrig is nullptr");
    return false;
  }
  nlattr* nestIp = openNest(msg, CTA_TUPLE_IP | NLA_F_NESTED);
  if (nestIp == nullptr) {
    ZAN_LOG(ZAN_LOG_MODULE_CT_MGR, kLogError, "nestIp is nullptr");
    return false;
  }
  if (tuple.l3protonum == AF_INET6) {
    appendAttribute(msg, CTA_IP_V6_SRC, sizeof(in6_addr), tuple.src, sizeof(in6_addr));
    appendAttribute(msg, CTA_IP_V6_DST, sizeof(in6_addr), tuple.dst, sizeof(in6_addr));
  } else if (tuple.l3protonum == AF_INET) {
    appendAttribute(msg, CTA_IP_V4_SRC, sizeof(in_addr), tuple.src, sizeof(in_addr));
    appendAttribute(msg, CTA_IP_V4_DST, sizeof(in_addr), tuple.dst, sizeof(in_addr));
  }
  closeNest(msg, nestIp);

  nlattr* nestProto = openNest(msg, CTA_TUPLE_PROTO | NLA_F_NESTED);
  if (nestProto == nullptr) {
    ZAN_LOG(ZAN_LOG_MODULE_CT_MGR, kLogError, "nestProto is nullptr");
    return false;
  }
  appendAttribute(msg, CTA_PROTO_NUM, kProtoPayload, &tuple.protonum, sizeof(tuple.protonum));
  if (tuple.protonum == IPPROTO_UDP || tuple.protonum == IPPROTO_TCP) {
    appendAttribute(msg, CTA_PROTO_SRC_PORT, kProtoPayload, &tuple.srcPrt, sizeof(tuple.srcPrt));
    appendAttribute(msg, CTA_PROTO_DST_PORT, kProtoPayload, &tuple.dstPrt, sizeof(tuple.dstPrt));
  }
  closeNest(msg, nestProto);
  closeNest(msg, nestOrig);
  return true;
}

}  // namespace ctmgr
