#include "lab/ConntrackInserter.h"

#include <linux/netfilter/nf_conntrack_common.h>
#include <linux/netfilter/nf_conntrack_tcp.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_conntrack.h>
#include <linux/netlink.h>
#include <netinet/icmp6.h>
#include <netinet/in.h>
#include <netinet/ip_icmp.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <string>

#include "lab/Error.h"
#include "lab/IpAddress.h"
#include "lab/NetNamespace.h"
#include "lab/NetlinkWriter.h"

namespace lab {
namespace {

// As many acknowledgements as fit into a default receive buffer with room to spare.
constexpr std::size_t kBatch = 64;

bool isIcmp(std::uint8_t protocol) {
  return protocol == IPPROTO_ICMP || protocol == IPPROTO_ICMPV6;
}

void putIcmp(NetlinkWriter& message, std::uint8_t protocol, std::uint16_t identifier,
             bool request) {
  if (protocol == IPPROTO_ICMP) {
    message.put8(CTA_PROTO_ICMP_TYPE, request ? ICMP_ECHO : ICMP_ECHOREPLY);
    message.put8(CTA_PROTO_ICMP_CODE, 0);
    message.put16(CTA_PROTO_ICMP_ID, identifier);
    return;
  }
  message.put8(CTA_PROTO_ICMPV6_TYPE, request ? ICMP6_ECHO_REQUEST : ICMP6_ECHO_REPLY);
  message.put8(CTA_PROTO_ICMPV6_CODE, 0);
  message.put16(CTA_PROTO_ICMPV6_ID, identifier);
}

void putTuple(NetlinkWriter& message, unsigned type, const ConntrackTuple& tuple,
              std::uint8_t protocol, std::uint16_t icmpIdentifier) {
  const IpAddress source(tuple.source);
  const IpAddress destination(tuple.destination);
  if (source.family() != destination.family()) {
    throw Error("a conntrack tuple with addresses of two families: " + tuple.source + " and " +
                tuple.destination);
  }
  const bool ipv4 = source.family() == AF_INET;
  const std::size_t outer = message.beginNest(type);

  const std::size_t addresses = message.beginNest(CTA_TUPLE_IP);
  message.put(ipv4 ? CTA_IP_V4_SRC : CTA_IP_V6_SRC, source.bytes(), source.size());
  message.put(ipv4 ? CTA_IP_V4_DST : CTA_IP_V6_DST, destination.bytes(), destination.size());
  message.endNest(addresses);

  const std::size_t transport = message.beginNest(CTA_TUPLE_PROTO);
  message.put8(CTA_PROTO_NUM, protocol);
  if (isIcmp(protocol)) {
    putIcmp(message, protocol, icmpIdentifier, type == CTA_TUPLE_ORIG);
  } else {
    message.put16(CTA_PROTO_SRC_PORT, tuple.sourcePort);
    message.put16(CTA_PROTO_DST_PORT, tuple.destinationPort);
  }
  message.endNest(transport);

  message.endNest(outer);
}

ConntrackTuple mirrored(const ConntrackTuple& tuple) {
  return ConntrackTuple{tuple.destination, tuple.source, tuple.destinationPort, tuple.sourcePort};
}

// nlmsghdr | nfgenmsg | CTA_TUPLE_ORIG | CTA_TUPLE_REPLY | CTA_STATUS | CTA_TIMEOUT
//   and for TCP CTA_PROTOINFO { CTA_PROTOINFO_TCP { CTA_PROTOINFO_TCP_STATE } }
void putEntry(NetlinkWriter& message, const ConntrackInserter::Entry& entry,
              std::uint32_t sequence) {
  constexpr std::uint16_t kType = (NFNL_SUBSYS_CTNETLINK << 8U) | IPCTNL_MSG_CT_NEW;
  constexpr std::uint16_t kFlags = NLM_F_REQUEST | NLM_F_ACK | NLM_F_CREATE | NLM_F_EXCL;
  const int family = IpAddress(entry.original.source).family();
  const std::uint16_t identifier = entry.original.sourcePort;

  const std::size_t start = message.beginMessage(kType, kFlags, sequence);
  message.append(nfgenmsg{static_cast<std::uint8_t>(family), NFNETLINK_V0, 0});
  putTuple(message, CTA_TUPLE_ORIG, entry.original, entry.protocol, identifier);
  putTuple(message, CTA_TUPLE_REPLY, entry.reply.value_or(mirrored(entry.original)), entry.protocol,
           identifier);
  message.put32(CTA_STATUS, IPS_CONFIRMED | IPS_SEEN_REPLY | IPS_ASSURED);
  message.put32(CTA_TIMEOUT, entry.timeoutSeconds);
  if (entry.protocol == IPPROTO_TCP) {
    const std::size_t info = message.beginNest(CTA_PROTOINFO);
    const std::size_t tcp = message.beginNest(CTA_PROTOINFO_TCP);
    message.put8(CTA_PROTOINFO_TCP_STATE, TCP_CONNTRACK_ESTABLISHED);
    message.endNest(tcp);
    message.endNest(info);
  }
  message.endMessage(start);
}

Error refusal(const ConntrackInserter::Entry& entry, int error) {
  return systemError(
      "the kernel refuses the conntrack entry protocol " + std::to_string(entry.protocol) + " " +
          entry.original.source + " port " + std::to_string(entry.original.sourcePort) + " -> " +
          entry.original.destination + " port " + std::to_string(entry.original.destinationPort),
      error);
}

}  // namespace

ConntrackInserter::ConntrackInserter(const NetNamespace& where) {
  where.run([this] {
    socket_.reset(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_NETFILTER));
    if (!socket_.valid()) throw systemError("cannot create a netfilter netlink socket");
  });
  // Acknowledgements without a copy of the request: more of them fit into the buffer.
  const int on = 1;
  ::setsockopt(socket_.get(), SOL_NETLINK, NETLINK_CAP_ACK, &on, sizeof on);
}

void ConntrackInserter::insert(const std::vector<Entry>& entries) {
  for (std::size_t begin = 0; begin < entries.size(); begin += kBatch) {
    const std::size_t end = std::min(begin + kBatch, entries.size());
    sendBatch(entries, begin, end);
    collectAcknowledgements(entries, begin, end);
  }
}

void ConntrackInserter::sendBatch(const std::vector<Entry>& entries, std::size_t begin,
                                  std::size_t end) {
  NetlinkWriter messages;
  for (std::size_t i = begin; i < end; ++i) {
    putEntry(messages, entries[i], static_cast<std::uint32_t>(i));
  }
  if (!messages.send(socket_.get())) {
    throw systemError("cannot send conntrack entries to the kernel");
  }
}

// A deletion that names no entry is one of all; without an acknowledgement asked for, the kernel
// has still worked through it when sendto() returns, and answers failures alone.
void ConntrackInserter::removeAll() {
  constexpr std::uint16_t kType = (NFNL_SUBSYS_CTNETLINK << 8U) | IPCTNL_MSG_CT_DELETE;
  NetlinkWriter message;
  const std::size_t start = message.beginMessage(kType, NLM_F_REQUEST, 0);
  message.append(nfgenmsg{AF_UNSPEC, NFNETLINK_V0, 0});
  message.endMessage(start);
  if (!message.send(socket_.get())) throw systemError("cannot empty the conntrack table");
}

// The kernel has worked through the whole batch when sendto() returns, and answers each message.
void ConntrackInserter::collectAcknowledgements(const std::vector<Entry>& entries,
                                                std::size_t begin, std::size_t end) {
  std::optional<Error> failure;
  for (std::size_t seen = begin; seen < end;) {
    alignas(nlmsghdr) std::array<char, 8192> buffer;
    const ssize_t got = ::recv(socket_.get(), buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (got < 0) throw systemError("no acknowledgement of a conntrack entry");
    for (std::size_t at = 0; at + NLMSG_HDRLEN <= static_cast<std::size_t>(got);) {
      nlmsghdr header{};
      std::memcpy(&header, &buffer.at(at), sizeof header);
      if (header.nlmsg_type == NLMSG_ERROR) {
        int error = 0;
        std::memcpy(&error, &buffer.at(at + NLMSG_HDRLEN), sizeof error);
        if (error != 0 && !failure) failure = refusal(entries.at(header.nlmsg_seq), -error);
        ++seen;
      }
      at += std::max<std::size_t>(NLMSG_ALIGN(header.nlmsg_len), NLMSG_HDRLEN);
    }
  }
  if (failure) throw Error(*failure);
}

}  // namespace lab
