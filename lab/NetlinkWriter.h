#pragma once

#include <arpa/inet.h>
#include <linux/netlink.h>
#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

namespace lab {

/// Netlink messages, one after the other. A position is an offset from the start.
class NetlinkWriter {
 public:
  /// A header, to be followed by the body of |type|'s subsystem and attributes.
  std::size_t beginMessage(std::uint16_t type, std::uint16_t flags, std::uint32_t sequence) {
    const std::size_t start = bytes_.size();
    nlmsghdr header{};
    header.nlmsg_type = type;
    header.nlmsg_flags = flags;
    header.nlmsg_seq = sequence;
    append(header);
    return start;
  }

  void endMessage(std::size_t start) {
    const auto length = static_cast<std::uint32_t>(bytes_.size() - start);
    std::memcpy(&bytes_[start], &length, sizeof length);
  }

  /// A record as it is, a message's body say; padded to a multiple of four.
  template <typename Record>
  void append(const Record& record) {
    appendBytes(&record, sizeof record);
  }

  void put(unsigned type, const void* data, std::size_t size) {
    append(nlattr{static_cast<std::uint16_t>(sizeof(nlattr) + size),
                  static_cast<std::uint16_t>(type)});
    appendBytes(data, size);
  }

  void put8(unsigned type, std::uint8_t value) { put(type, &value, sizeof value); }
  void put16(unsigned type, std::uint16_t value) {
    const std::uint16_t network = htons(value);
    put(type, &network, sizeof network);
  }
  void put32(unsigned type, std::uint32_t value) {
    const std::uint32_t network = htonl(value);
    put(type, &network, sizeof network);
  }

  std::size_t beginNest(unsigned type) {
    const std::size_t start = bytes_.size();
    put(type | NLA_F_NESTED, nullptr, 0);
    return start;
  }

  void endNest(std::size_t start) {
    const auto length = static_cast<std::uint16_t>(bytes_.size() - start);
    std::memcpy(&bytes_[start], &length, sizeof length);
  }

  [[nodiscard]] const std::vector<std::uint8_t>& bytes() const { return bytes_; }

  /// Sends everything to the kernel. False, with errno set, if that fails.
  [[nodiscard]] bool send(int socket) const {
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    return ::sendto(socket, bytes_.data(), bytes_.size(), 0,
                    reinterpret_cast<const sockaddr*>(&kernel), sizeof kernel) >= 0;
  }

 private:
  void appendBytes(const void* data, std::size_t size) {
    const std::size_t start = bytes_.size();
    bytes_.resize(NLMSG_ALIGN(start + size));
    if (size > 0) std::memcpy(&bytes_[start], data, size);
  }

  std::vector<std::uint8_t> bytes_;
};

}  // namespace lab
