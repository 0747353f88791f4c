// IP addresses in the one spelling of the lab.
#include "lab/IpAddress.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstring>

#include "lab/Error.h"

namespace lab {

IpAddress::IpAddress(const std::string& text) {
  if (::inet_pton(AF_INET, text.c_str(), bytes_.data()) == 1) {
    family_ = AF_INET;
  } else if (::inet_pton(AF_INET6, text.c_str(), bytes_.data()) == 1) {
    family_ = AF_INET6;
  } else {
    throw Error("'" + text + "' is not an IP address");
  }
}

std::string IpAddress::canonical(const std::string& text) {
  return IpAddress(text).text();
}

std::string IpAddress::text() const {
  std::array<char, INET6_ADDRSTRLEN> buffer{};
  return ::inet_ntop(family_, bytes_.data(), buffer.data(), buffer.size());
}

socklen_t IpAddress::toSockaddr(std::uint16_t port, sockaddr_storage& storage) const {
  storage = {};
  if (family_ == AF_INET) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    std::memcpy(&address.sin_addr, bytes_.data(), sizeof address.sin_addr);
    std::memcpy(&storage, &address, sizeof address);
    return sizeof address;
  }
  sockaddr_in6 address{};
  address.sin6_family = AF_INET6;
  address.sin6_port = htons(port);
  std::memcpy(&address.sin6_addr, bytes_.data(), sizeof address.sin6_addr);
  std::memcpy(&storage, &address, sizeof address);
  return sizeof address;
}

}  // namespace lab
