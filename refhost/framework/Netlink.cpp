// What the reference host's users of rtnetlink(7) share, beside libmnl.
#include "refhost/framework/Netlink.h"

#include <libmnl/libmnl.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <optional>

namespace framework {

bool requestList(int fd, std::uint16_t type, std::uint32_t sequence) {
  alignas(nlmsghdr) std::array<char, 64> buffer;  // more than it takes
  nlmsghdr* request = mnl_nlmsg_put_header(buffer.data());
  request->nlmsg_type = type;
  request->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  request->nlmsg_seq = sequence;
  mnl_nlmsg_put_extra_header(request, sizeof(rtgenmsg));  // zero: of every family
  return send(fd, request, request->nlmsg_len, 0) >= 0;
}

bool receiveList(ZanNetlinkSocket& socket, std::uint16_t type, NlMsgCallback callback,
                 void* cbData) {
  struct Reading {
    NlMsgCallback callback;
    void* cbData;
    std::optional<int> result;  ///< of the listing, once it has ended: 0 or a negative errno value
  } reading{callback, cbData, std::nullopt};
  const auto take = [](void* data, nlmsghdr* msg, unsigned int length) {
    auto* self = static_cast<Reading*>(data);
    if (msg->nlmsg_type == NLMSG_DONE) self->result = 0;
    if (msg->nlmsg_type == NLMSG_ERROR) {
      self->result = static_cast<const nlmsgerr*>(mnl_nlmsg_get_payload(msg))->error;
    }
    self->callback(self->cbData, msg, length);
  };
  if (!requestList(socket.socketFd, type, 0)) return false;
  while (!reading.result) {
    if (socket.NetlinkRecv(0, take, &reading) < 0) return false;
  }
  errno = -*reading.result;
  return errno == 0;
}

const nlattr* findAttribute(const nlmsghdr& msg, unsigned int headerLength, std::uint16_t type) {
  struct Search {
    std::uint16_t type;
    const nlattr* found;
  } search{type, nullptr};
  const auto look = [](const nlattr* attribute, void* data) {
    auto* self = static_cast<Search*>(data);
    if (mnl_attr_get_type(attribute) == self->type) self->found = attribute;
    return MNL_CB_OK;
  };
  mnl_attr_parse(&msg, headerLength, look, &search);
  return search.found;
}

}  // namespace framework
