#include "refhost/framework/NeighbourListing.h"

#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <utility>

#include "host/ZanNetlinkSocket.h"
#include "refhost/framework/HostLog.h"
#include "refhost/framework/NetlinkMessages.h"

namespace framework {
namespace {

/// Tells the answer from notifications, which carry 0.
constexpr std::uint32_t kSequence = 1;

/// What the kernel announces, and has a link-layer address for.
constexpr unsigned kAnnounced = NUD_REACHABLE | NUD_STALE | NUD_DELAY | NUD_PROBE | NUD_PERMANENT;

constexpr std::int64_t kChangeAge = -1;

bool isAnnounced(const nlmsghdr& msg) {
  return msg.nlmsg_type == RTM_NEWNEIGH && msg.nlmsg_len >= NLMSG_LENGTH(sizeof(ndmsg)) &&
         (netlinkPayload<ndmsg>(&msg)->ndm_state & kAnnounced) != 0;
}

std::int64_t ageOf(const nlmsghdr& msg) {
  std::int64_t age = std::numeric_limits<std::int64_t>::max();
  forEachAttribute(msg, sizeof(ndmsg), [&](int type, const void* value, std::size_t length) {
    nda_cacheinfo times;
    if (type != NDA_CACHEINFO || length < sizeof(times)) return;
    std::memcpy(&times, value, sizeof(times));
    age = times.ndm_updated;
  });
  return age;
}

}  // namespace

bool NeighbourListing::ask(int fd) {
  struct {
    nlmsghdr header;
    ndmsg neighbour;
  } request{};
  request.header.nlmsg_len = sizeof(request);
  request.header.nlmsg_type = RTM_GETNEIGH;
  request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  request.header.nlmsg_seq = kSequence;
  underWay_ = send(fd, &request, sizeof(request), 0) >= 0;
  return underWay_;
}

void NeighbourListing::take(const nlmsghdr& msg) {
  const bool listed = msg.nlmsg_seq == kSequence;
  if (listed && msg.nlmsg_type == NLMSG_ERROR) {
    HOST_LOG(kLogWarning, "netlink: the kernel does not list its neighbours: %s",
             std::strerror(-netlinkPayload<nlmsgerr>(&msg)->error));
  }
  if (listed && (msg.nlmsg_type == NLMSG_DONE || msg.nlmsg_type == NLMSG_ERROR)) {
    underWay_ = false;
    return;
  }
  if (listed && !isAnnounced(msg)) return;
  const auto* bytes = reinterpret_cast<const unsigned char*>(&msg);
  Message message(bytes, bytes + msg.nlmsg_len);
  message.resize(message.size() + kNetlinkReceiveSlack);
  kept_.push_back({listed ? ageOf(msg) : kChangeAge, std::move(message)});
}

std::vector<NeighbourListing::Message> NeighbourListing::result() {
  std::stable_sort(kept_.begin(), kept_.end(),
                   [](const Kept& one, const Kept& other) { return one.age > other.age; });
  std::vector<Message> messages;
  for (Kept& kept : std::exchange(kept_, {})) messages.push_back(std::move(kept.message));
  return messages;
}

}  // namespace framework
