// What the reference host's users of netlink(7) share, beside libmnl.
#include "refhost/framework/Netlink.h"

#include <libmnl/libmnl.h>
#include <linux/if_ether.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <optional>

namespace framework {
namespace {

struct AttributeSearch {
  std::uint16_t type;
  const nlattr* found;
};

int lookAt(const nlattr* attribute, void* data) {
  auto* search = static_cast<AttributeSearch*>(data);
  if (mnl_attr_get_type(attribute) == search->type) search->found = attribute;
  return MNL_CB_OK;
}

/// How the answer to a request ends, 0 or a negative errno value, if |msg| is its end. A list may
/// fail there too.
std::optional<int> endOf(const nlmsghdr& msg) {
  if (msg.nlmsg_type != NLMSG_DONE && msg.nlmsg_type != NLMSG_ERROR) return std::nullopt;
  if (mnl_nlmsg_get_payload_len(&msg) < sizeof(int)) return 0;
  return *static_cast<const int*>(mnl_nlmsg_get_payload(&msg));
}

}  // namespace

bool requestList(int fd, std::uint16_t type, std::uint32_t sequence) {
  alignas(nlmsghdr) std::array<char, 64> buffer;  // more than it takes
  nlmsghdr* request = mnl_nlmsg_put_header(buffer.data());
  request->nlmsg_type = type;
  request->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  request->nlmsg_seq = sequence;
  mnl_nlmsg_put_extra_header(request, sizeof(rtgenmsg));  // zero: of every family
  return send(fd, request, request->nlmsg_len, 0) >= 0;
}

bool receiveAnswer(ZanNetlinkSocket& socket, NlMsgCallback callback, void* cbData) {
  struct Reading {
    NlMsgCallback callback;
    void* cbData;
    std::optional<int> end;
  } reading{callback, cbData, std::nullopt};
  const auto take = [](void* data, nlmsghdr* msg, unsigned int length) {
    auto* self = static_cast<Reading*>(data);
    if (const auto end = endOf(*msg)) self->end = end;
    self->callback(self->cbData, msg, length);
  };
  while (!reading.end) {
    if (socket.NetlinkRecv(0, take, &reading) < 0) return false;
  }
  errno = -*reading.end;
  return errno == 0;
}

bool receiveList(ZanNetlinkSocket& socket, std::uint16_t type, NlMsgCallback callback,
                 void* cbData) {
  return requestList(socket.socketFd, type, 0) && receiveAnswer(socket, callback, cbData);
}

const nlattr* findAttribute(const nlmsghdr& msg, unsigned int headerLength, std::uint16_t type) {
  AttributeSearch search{type, nullptr};
  mnl_attr_parse(&msg, headerLength, lookAt, &search);
  return search.found;
}

const nlattr* findNested(const nlattr& nest, std::uint16_t type) {
  AttributeSearch search{type, nullptr};
  mnl_attr_parse_nested(&nest, lookAt, &search);
  return search.found;
}

std::string macText(const nlattr* attribute) {
  if (attribute == nullptr || mnl_attr_get_payload_len(attribute) != ETH_ALEN) return {};
  const auto* mac = static_cast<const unsigned char*>(mnl_attr_get_payload(attribute));
  std::array<char, sizeof("00:00:00:00:00:00")> text{};
  std::snprintf(text.data(), text.size(), "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2],
                mac[3], mac[4], mac[5]);
  return text.data();
}

}  // namespace framework
