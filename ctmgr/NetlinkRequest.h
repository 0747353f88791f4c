// The request that deletes one conntrack entry, and how netlink requests are built: one function,
// one step.
//
// A netlink attribute, 4-byte aligned in its message (linux/netlink.h, RFC 3549 section 2.2):
//
//   |<-- nla_len: header and payload, without padding -->|<- pad ->|
//   +----------------+----------------+------------------+---------+
//   | nla_len    u16 | nla_type   u16 | payload          | zeroes  |
//   +----------------+----------------+------------------+---------+
//
// A nest is an attribute whose payload is attributes.
#pragma once

#include <linux/netlink.h>

#include <cstddef>
#include <cstdint>

namespace ctmgr {

/// Size of a delete request's buffer and the limit of every append, in bytes.
inline constexpr unsigned int DELETE_MSG_MAX_LEN = 4096;

/// Appends an attribute of |type| whose payload is |payloadLength| bytes long and begins with
/// |valueLength| bytes of |value|, the rest staying as the buffer is: zero. |msg| stands at the
/// start of a zeroed buffer of DELETE_MSG_MAX_LEN bytes. Returns the attribute, or null, with a
/// log line and |msg| unchanged, where it would not fit.
nlattr* appendAttribute(nlmsghdr* msg, std::uint16_t type, std::size_t payloadLength,
                        const void* value, std::size_t valueLength);

/// Opens a nest of |type| at the end of |msg|; null as above.
[[nodiscard]] nlattr* openNest(nlmsghdr* msg, std::uint16_t type);

/// Closes |nest|: everything appended to |msg| since it was opened is its payload.
void closeNest(nlmsghdr* msg, nlattr* nest);

/// The tuple of one delete request; addresses and ports in network byte order.
struct ConntrackTuple {
  std::uint8_t src[16];  ///< IPv4 in the first 4 bytes
  std::uint8_t dst[16];
  std::uint8_t l3protonum;  ///< AF_INET or AF_INET6
  std::uint8_t protonum;    ///< IPPROTO_TCP or IPPROTO_UDP
  std::uint16_t srcPrt;
  std::uint16_t dstPrt;
};

/// Makes |msg| a delete request for |family| without a tuple yet.
void fillDeleteHeader(nlmsghdr* msg, std::uint8_t family, std::uint32_t sequence);

/// Appends |tuple| to |msg|, a buffer as above. False, with log lines, when it does not fit.
[[nodiscard]] bool appendTuple(nlmsghdr* msg, const ConntrackTuple& tuple);

}  // namespace ctmgr
