// Walking over what one read from a netlink socket returned.
#pragma once

#include <linux/netlink.h>
#include <linux/rtnetlink.h>

#include <cstddef>
#include <cstring>

namespace framework {

/// Calls |visit| with every complete message in the |length| bytes at |data|, which is aligned
/// for an nlmsghdr. Returns their number.
template <typename Visit>
int forEachNetlinkMessage(unsigned char* data, std::size_t length, Visit visit) {
  int count = 0;
  while (length >= sizeof(nlmsghdr)) {
    auto* msg = static_cast<nlmsghdr*>(static_cast<void*>(data));
    if (msg->nlmsg_len < sizeof(nlmsghdr) || msg->nlmsg_len > length) break;
    const std::size_t aligned = (msg->nlmsg_len + std::size_t{3}) & ~std::size_t{3};
    visit(msg);
    ++count;
    if (aligned >= length) break;
    data += aligned;
    length -= aligned;
  }
  return count;
}

/// The payload of |msg|, right behind its header.
template <typename Payload>
const Payload* netlinkPayload(const nlmsghdr* msg) {
  return static_cast<const Payload*>(static_cast<const void*>(msg + 1));
}

/// Calls |visit| with type, payload and payload's length of every attribute of |msg|, which begin
/// behind a family header of |headerLength| bytes.
template <typename Visit>
void forEachAttribute(const nlmsghdr& msg, std::size_t headerLength, Visit visit) {
  const auto* bytes = reinterpret_cast<const unsigned char*>(&msg);
  std::size_t position = sizeof(nlmsghdr) + ((headerLength + 3) & ~std::size_t{3});
  rtattr attribute;
  while (position + sizeof(attribute) <= msg.nlmsg_len) {
    std::memcpy(&attribute, bytes + position, sizeof(attribute));
    if (attribute.rta_len < sizeof(attribute) || position + attribute.rta_len > msg.nlmsg_len) {
      return;
    }
    visit(static_cast<int>(attribute.rta_type), bytes + position + sizeof(attribute),
          attribute.rta_len - sizeof(attribute));
    position += (attribute.rta_len + std::size_t{3}) & ~std::size_t{3};
  }
}

}  // namespace framework
