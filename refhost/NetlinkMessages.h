// Walking over what one read from a netlink socket returned.
#pragma once

#include <linux/netlink.h>

#include <cstddef>

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
