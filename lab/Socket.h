// Sockets of the lab, and the one spelling that it has for IP addresses.
#pragma once

#include <sys/socket.h>

#include <cstdint>
#include <string>

#include "base/UniqueFd.h"

namespace lab {

/// An IPv4 or IPv6 address with a port, as the socket calls take it.
class SocketAddress {
 public:
  /// |ip| in any spelling inet_pton() takes, |port| in host order. Throws Error for anything else.
  explicit SocketAddress(const std::string& ip, std::uint16_t port = 0);

  [[nodiscard]] int family() const { return storage_.ss_family; }
  [[nodiscard]] const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&storage_); }
  [[nodiscard]] socklen_t size() const;

  /// The address alone: 4 or 16 bytes in network order.
  [[nodiscard]] const void* ip() const;

 private:
  sockaddr_storage storage_{};
};

/// The spelling of inet_ntop() (IPv6 compressed) for any spelling of the same address, in which the
/// lab keeps them all. Throws Error.
[[nodiscard]] std::string canonicalIp(const std::string& ip);

/// A socket of |type| (SOCK_STREAM or SOCK_DGRAM, and flags) in the caller's namespace, bound to
/// |port| of all addresses of |family|. Throws Error.
[[nodiscard]] base::UniqueFd boundSocket(int family, int type, std::uint16_t port);

/// Sends one datagram. Throws Error if it cannot leave; whether it arrives is another matter.
void sendDatagram(int fd, const SocketAddress& to, const std::string& payload);

}  // namespace lab
