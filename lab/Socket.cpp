// Sockets of the lab, and the one spelling that it has for IP addresses.
#include "lab/Socket.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <array>

#include "lab/Error.h"

namespace lab {
SocketAddress::SocketAddress(const std::string& ip, std::uint16_t port) {
  void* const storage = &storage_;
  auto* const ipv4 = static_cast<sockaddr_in*>(storage);
  auto* const ipv6 = static_cast<sockaddr_in6*>(storage);
  if (::inet_pton(AF_INET, ip.c_str(), &ipv4->sin_addr) == 1) {
    ipv4->sin_family = AF_INET;
    ipv4->sin_port = htons(port);
  } else if (::inet_pton(AF_INET6, ip.c_str(), &ipv6->sin6_addr) == 1) {
    ipv6->sin6_family = AF_INET6;
    ipv6->sin6_port = htons(port);
  } else {
    throw Error("'" + ip + "' is not an IP address");
  }
}

socklen_t SocketAddress::size() const {
  return family() == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
}

const void* SocketAddress::ip() const {
  const void* const storage = &storage_;
  if (family() == AF_INET) return &static_cast<const sockaddr_in*>(storage)->sin_addr;
  return &static_cast<const sockaddr_in6*>(storage)->sin6_addr;
}

std::string canonicalIp(const std::string& ip) {
  const SocketAddress address(ip);
  std::array<char, INET6_ADDRSTRLEN> text{};
  return ::inet_ntop(address.family(), address.ip(), text.data(), text.size());
}

base::UniqueFd boundSocket(int family, int type, std::uint16_t port) {
  base::UniqueFd fd(::socket(family, type | SOCK_CLOEXEC, 0));
  if (!fd.valid()) throw systemError("cannot create a socket");
  const int on = 1;
  ::setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  if (family == AF_INET6) ::setsockopt(fd.get(), IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
  const SocketAddress any(family == AF_INET ? "0.0.0.0" : "::", port);
  if (::bind(fd.get(), any.get(), any.size()) == 0) return fd;
  throw systemError("cannot bind port " + std::to_string(port));
}

void sendDatagram(int fd, const SocketAddress& to, const std::string& payload) {
  if (::sendto(fd, payload.data(), payload.size(), 0, to.get(), to.size()) < 0) {
    throw systemError("cannot send a datagram");
  }
}

}  // namespace lab
