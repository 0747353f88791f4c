// One connection-tracking tuple, and what a caller asks the parser to look for.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <type_traits>

/// A tuple to delete: the direction of a conntrack entry in which a match was found.
struct ZanConnTrackFilter_s {
  std::uint16_t af;       ///< AF_INET or AF_INET6
  std::uint16_t sport;    ///< host byte order
  std::uint16_t dport;    ///< host byte order
  std::uint8_t src[16];   ///< network byte order; IPv4 in the first 4 bytes, the rest zero
  std::uint8_t dest[16];  ///< the same
  std::int32_t protocol;  ///< IPPROTO_TCP or IPPROTO_UDP
};
static_assert(std::is_trivially_copyable_v<ZanConnTrackFilter_s>);
static_assert(AF_INET == 2 && AF_INET6 == 10 && IPPROTO_TCP == 6 && IPPROTO_UDP == 17);

/// Word |index|, 0 to 3, of an address as it is stored: network byte order read as a host integer.
[[nodiscard]] inline std::uint32_t addressWord(const std::uint8_t (&address)[16],
                                               std::size_t index) {
  std::uint32_t word = 0;
  std::memcpy(&word, address + index * sizeof(word), sizeof(word));
  return word;
}

/// A hotspot client's addresses, as the parser compares them.
struct ZanConnTrackFileParseControlType {
  std::string fileName;     ///< path of the table, for the caller's own use
  std::string ipv4Address;  ///< dotted text, or empty
  std::string ipv6Address;  ///< expanded text (ZanConnTrackUtils::getIpV6Address), or empty
};
