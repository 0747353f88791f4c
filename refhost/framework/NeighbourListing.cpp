// Which neighbours a listing hands on, and in which order.
#include "refhost/framework/NeighbourListing.h"

#include <libmnl/libmnl.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <utility>

#include "refhost/framework/HostLog.h"
#include "refhost/framework/Netlink.h"

namespace framework {
namespace {

/// Tells the answer from notifications, which carry 0.
constexpr std::uint32_t kSequence = 1;

/// What the kernel announces, and has a link-layer address for.
constexpr unsigned kAnnounced = NUD_REACHABLE | NUD_STALE | NUD_DELAY | NUD_PROBE | NUD_PERMANENT;

constexpr std::int64_t kChangeAge = -1;

bool isAnnounced(const nlmsghdr& msg) {
  return msg.nlmsg_type == RTM_NEWNEIGH && mnl_nlmsg_get_payload_len(&msg) >= sizeof(ndmsg) &&
         (static_cast<const ndmsg*>(mnl_nlmsg_get_payload(&msg))->ndm_state & kAnnounced) != 0;
}

std::int64_t ageOf(const nlmsghdr& msg) {
  const nlattr* attribute = findAttribute(msg, sizeof(ndmsg), NDA_CACHEINFO);
  if (attribute == nullptr || mnl_attr_get_payload_len(attribute) < sizeof(nda_cacheinfo)) {
    return std::numeric_limits<std::int64_t>::max();
  }
  return static_cast<const nda_cacheinfo*>(mnl_attr_get_payload(attribute))->ndm_updated;
}

}  // namespace

bool NeighbourListing::ask(int fd, std::set<std::string> macs) {
  macs_ = std::move(macs);
  underWay_ = requestList(fd, RTM_GETNEIGH, kSequence);
  return underWay_;
}

void NeighbourListing::take(const nlmsghdr& msg) {
  const bool listed = msg.nlmsg_seq == kSequence;
  if (listed && msg.nlmsg_type == NLMSG_ERROR) {
    HOST_LOG(kLogWarning, "netlink: the kernel does not list its neighbours: %s",
             std::strerror(-static_cast<const nlmsgerr*>(mnl_nlmsg_get_payload(&msg))->error));
  }
  if (listed && (msg.nlmsg_type == NLMSG_DONE || msg.nlmsg_type == NLMSG_ERROR)) {
    underWay_ = false;
    return;
  }
  if (listed && !(isAnnounced(msg) && isWanted(msg))) return;
  const auto* bytes = reinterpret_cast<const unsigned char*>(&msg);
  Message message(bytes, bytes + msg.nlmsg_len);
  message.resize(message.size() + kNetlinkReceiveSlack);
  kept_.push_back({listed ? ageOf(msg) : kChangeAge, std::move(message)});
}

bool NeighbourListing::isWanted(const nlmsghdr& msg) const {
  return macs_.empty() || macs_.count(macText(findAttribute(msg, sizeof(ndmsg), NDA_LLADDR))) != 0;
}

std::vector<NeighbourListing::Message> NeighbourListing::result() {
  std::stable_sort(kept_.begin(), kept_.end(),
                   [](const Kept& one, const Kept& other) { return one.age > other.age; });
  std::vector<Message> messages;
  for (Kept& kept : std::exchange(kept_, {})) messages.push_back(std::move(kept.message));
  return messages;
}

}  // namespace framework
