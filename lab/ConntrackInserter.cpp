// Puts made-up entries into a conntrack table.
#include "lab/ConntrackInserter.h"

#include <libmnl/libmnl.h>
#include <linux/netfilter/nf_conntrack_common.h>
#include <linux/netfilter/nf_conntrack_tcp.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_conntrack.h>
#include <linux/netlink.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <string>

#include "lab/Error.h"
#include "lab/NetNamespace.h"
#include "lab/Socket.h"

namespace lab {
namespace {

/// As many acknowledgements as fit into a default receive buffer with room to spare.
constexpr std::size_t kBatch = 64;
/// More than the longest request: TCP over IPv6.
constexpr std::size_t kMostBytes = 512;

// |direction| { CTA_TUPLE_IP { source, destination }, CTA_TUPLE_PROTO { number, ports } }
void putTuple(nlmsghdr* message, std::uint16_t direction, const ConntrackTuple& tuple,
              std::uint8_t protocol) {
  const SocketAddress source(tuple.source);
  const SocketAddress destination(tuple.destination);
  const bool ipv4 = source.family() == AF_INET;
  nlattr* const outer = mnl_attr_nest_start(message, direction);

  nlattr* const addresses = mnl_attr_nest_start(message, CTA_TUPLE_IP);
  mnl_attr_put(message, ipv4 ? CTA_IP_V4_SRC : CTA_IP_V6_SRC, source.ipSize(), source.ip());
  mnl_attr_put(message, ipv4 ? CTA_IP_V4_DST : CTA_IP_V6_DST, destination.ipSize(),
               destination.ip());
  mnl_attr_nest_end(message, addresses);

  nlattr* const transport = mnl_attr_nest_start(message, CTA_TUPLE_PROTO);
  mnl_attr_put_u8(message, CTA_PROTO_NUM, protocol);
  mnl_attr_put_u16(message, CTA_PROTO_SRC_PORT, htons(tuple.sourcePort));
  mnl_attr_put_u16(message, CTA_PROTO_DST_PORT, htons(tuple.destinationPort));
  mnl_attr_nest_end(message, transport);

  mnl_attr_nest_end(message, outer);
}

ConntrackTuple mirrored(const ConntrackTuple& tuple) {
  return ConntrackTuple{tuple.destination, tuple.source, tuple.destinationPort, tuple.sourcePort};
}

nlmsghdr* putHeader(char* room, std::uint16_t message, int family) {
  nlmsghdr* const header = mnl_nlmsg_put_header(room);
  header->nlmsg_type = static_cast<std::uint16_t>((NFNL_SUBSYS_CTNETLINK << 8U) | message);
  header->nlmsg_flags = NLM_F_REQUEST;
  auto* const body = static_cast<nfgenmsg*>(mnl_nlmsg_put_extra_header(header, sizeof(nfgenmsg)));
  body->nfgen_family = static_cast<std::uint8_t>(family);
  body->version = NFNETLINK_V0;
  return header;
}

// nlmsghdr | nfgenmsg | CTA_TUPLE_ORIG | CTA_TUPLE_REPLY | CTA_STATUS | CTA_TIMEOUT
//   and for TCP CTA_PROTOINFO { CTA_PROTOINFO_TCP { CTA_PROTOINFO_TCP_STATE } }
std::size_t putEntry(char* room, const ConntrackInserter::Entry& entry) {
  nlmsghdr* const message =
      putHeader(room, IPCTNL_MSG_CT_NEW, SocketAddress(entry.original.source).family());
  message->nlmsg_flags |= NLM_F_ACK | NLM_F_CREATE | NLM_F_EXCL;
  putTuple(message, CTA_TUPLE_ORIG, entry.original, entry.protocol);
  putTuple(message, CTA_TUPLE_REPLY, entry.reply.value_or(mirrored(entry.original)),
           entry.protocol);
  mnl_attr_put_u32(message, CTA_STATUS, htonl(IPS_CONFIRMED | IPS_SEEN_REPLY | IPS_ASSURED));
  mnl_attr_put_u32(message, CTA_TIMEOUT, htonl(entry.timeoutSeconds));
  if (entry.protocol == IPPROTO_TCP) {
    nlattr* const info = mnl_attr_nest_start(message, CTA_PROTOINFO);
    nlattr* const tcp = mnl_attr_nest_start(message, CTA_PROTOINFO_TCP);
    mnl_attr_put_u8(message, CTA_PROTOINFO_TCP_STATE, TCP_CONNTRACK_ESTABLISHED);
    mnl_attr_nest_end(message, tcp);
    mnl_attr_nest_end(message, info);
  }
  return message->nlmsg_len;
}

}  // namespace

ConntrackInserter::ConntrackInserter(const NetNamespace& where)
    : socket_(where.run(
                  [] { return mnl_socket_open2(NETLINK_NETFILTER, SOCK_CLOEXEC | SOCK_NONBLOCK); }),
              mnl_socket_close) {
  if (!socket_) throw systemError("cannot create a netfilter netlink socket");
  // Acknowledgements without a copy of the request: more of them fit into the buffer.
  int on = 1;
  mnl_socket_setsockopt(socket_.get(), NETLINK_CAP_ACK, &on, sizeof on);
}

void ConntrackInserter::insert(std::span<const Entry> entries) {
  while (!entries.empty()) {
    const auto batch = entries.first(std::min(kBatch, entries.size()));
    insertBatch(batch);
    entries = entries.subspan(batch.size());
  }
}

// The kernel has worked through the whole batch when sendto() returns, and answers each message.
void ConntrackInserter::insertBatch(std::span<const Entry> batch) {
  alignas(nlmsghdr) std::array<char, kBatch * kMostBytes> requests{};
  std::size_t size = 0;
  for (const Entry& entry : batch) size += putEntry(&requests.at(size), entry);
  if (mnl_socket_sendto(socket_.get(), requests.data(), size) < 0) {
    throw systemError("cannot send conntrack entries to the kernel");
  }
  int failure = 0;
  for (std::size_t seen = 0; seen < batch.size();) {
    alignas(nlmsghdr) std::array<char, 8192> answers{};
    const ssize_t got = mnl_socket_recvfrom(socket_.get(), answers.data(), answers.size());
    if (got < 0) throw systemError("no acknowledgement of a conntrack entry");
    int left = static_cast<int>(got);
    const void* at = answers.data();
    for (const auto* header = static_cast<const nlmsghdr*>(at); mnl_nlmsg_ok(header, left);
         header = mnl_nlmsg_next(header, &left), ++seen) {
      const int error = static_cast<const nlmsgerr*>(mnl_nlmsg_get_payload(header))->error;
      if (error != 0) failure = -error;
    }
  }
  if (failure != 0) throw systemError("the kernel refuses a conntrack entry", failure);
}

// A deletion that names no entry is one of all; without an acknowledgement asked for, the kernel
// has still worked through it when sendto() returns, and answers failures alone.
void ConntrackInserter::removeAll() {
  alignas(nlmsghdr) std::array<char, kMostBytes> request{};
  const nlmsghdr* const message = putHeader(request.data(), IPCTNL_MSG_CT_DELETE, AF_UNSPEC);
  if (mnl_socket_sendto(socket_.get(), message, message->nlmsg_len) < 0) {
    throw systemError("cannot empty the conntrack table");
  }
}

}  // namespace lab
