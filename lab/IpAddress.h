// IP addresses in the one spelling of the lab.
#pragma once

#include <sys/socket.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

namespace lab {

/// An IPv4 or IPv6 address, and the one way in which the lab spells it.
class IpAddress {
 public:
  /// Reads any spelling inet_pton() takes; throws Error for anything else.
  explicit IpAddress(const std::string& text);

  /// The spelling of inet_ntop() (IPv6 compressed) for any spelling of the same address.
  [[nodiscard]] static std::string canonical(const std::string& text);

  [[nodiscard]] int family() const { return family_; }
  /// 4 or 16 bytes in network order.
  [[nodiscard]] const std::uint8_t* bytes() const { return bytes_.data(); }
  [[nodiscard]] std::size_t size() const { return family_ == AF_INET ? 4 : 16; }
  [[nodiscard]] std::string text() const;

  /// Fills |storage| for |port| (host order) and returns the length to pass with it.
  [[nodiscard]] socklen_t toSockaddr(std::uint16_t port, sockaddr_storage& storage) const;

 private:
  int family_ = AF_UNSPEC;
  std::array<std::uint8_t, 16> bytes_{};
};

}  // namespace lab
