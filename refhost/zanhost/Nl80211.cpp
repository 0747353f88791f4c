// Questions to generic netlink, and its news.
#include "refhost/zanhost/Nl80211.h"

#include <libmnl/libmnl.h>
#include <linux/genetlink.h>
#include <linux/nl80211.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <string>

#include "refhost/framework/Netlink.h"

namespace zanhost {
namespace {

/// A question to generic netlink: a header, the family's own, and one attribute.
struct Question {
  Question(std::uint16_t family, std::uint8_t command, unsigned int flags) {
    header->nlmsg_type = family;
    header->nlmsg_flags = static_cast<std::uint16_t>(NLM_F_REQUEST | flags);
    auto* const own = mnl_nlmsg_put_extra_header(header, sizeof(genlmsghdr));
    static_cast<genlmsghdr*>(own)->cmd = command;
  }

  alignas(nlmsghdr) std::array<char, 64> room{};  // more than it takes
  nlmsghdr* const header = mnl_nlmsg_put_header(room.data());
};

/// Hands every message of the answer to |take|. False, with errno set, when the kernel refuses.
bool ask(ZanNetlinkSocket& socket, const Question& question, NlMsgCallback take, void* cbData) {
  return send(socket.socketFd, question.header, question.header->nlmsg_len, 0) >= 0 &&
         framework::receiveAnswer(socket, take, cbData);
}

const nlattr* attributeOf(const nlmsghdr& msg, std::uint16_t type) {
  if (msg.nlmsg_type < NLMSG_MIN_TYPE) return nullptr;  // the end of an answer
  return framework::findAttribute(msg, GENL_HDRLEN, type);
}

/// The numbers of the family and of its group for stations.
struct Family {
  std::uint16_t id = 0;
  std::uint32_t group = 0;
};

void takeFamily(void* cbData, nlmsghdr* msg, unsigned int /*len*/) {
  auto* const family = static_cast<Family*>(cbData);
  const nlattr* const id = attributeOf(*msg, CTRL_ATTR_FAMILY_ID);
  const nlattr* const groups = attributeOf(*msg, CTRL_ATTR_MCAST_GROUPS);
  if (id == nullptr || groups == nullptr) return;
  const auto takeGroup = [](const nlattr* group, void* data) {
    const nlattr* const name = framework::findNested(*group, CTRL_ATTR_MCAST_GRP_NAME);
    const nlattr* const number = framework::findNested(*group, CTRL_ATTR_MCAST_GRP_ID);
    const bool wanted =
        name != nullptr && std::strcmp(mnl_attr_get_str(name), NL80211_MULTICAST_GROUP_MLME) == 0;
    if (wanted && number != nullptr) static_cast<Family*>(data)->group = mnl_attr_get_u32(number);
    return MNL_CB_OK;
  };
  family->id = mnl_attr_get_u16(id);
  mnl_attr_parse_nested(groups, takeGroup, family);
}

void takeType(void* cbData, nlmsghdr* msg, unsigned int /*len*/) {
  const nlattr* const type = attributeOf(*msg, NL80211_ATTR_IFTYPE);
  if (type != nullptr) *static_cast<std::uint32_t*>(cbData) = mnl_attr_get_u32(type);
}

/// Of another type the station may be the access point that this machine has joined.
bool isAccessPoint(std::uint32_t type) {
  return type == NL80211_IFTYPE_AP || type == NL80211_IFTYPE_AP_VLAN ||
         type == NL80211_IFTYPE_P2P_GO;
}

void takeStation(void* cbData, nlmsghdr* msg, unsigned int /*len*/) {
  if (auto station = stationOf(*msg)) static_cast<Stations*>(cbData)->insert(std::move(*station));
}

/// Whether somebody comes or leaves. Drivers tell of much more, each frame for example.
void takeNews(void* cbData, nlmsghdr* msg, unsigned int /*len*/) {
  constexpr std::array kOfStations{NL80211_CMD_NEW_STATION, NL80211_CMD_DEL_STATION,
                                   NL80211_CMD_START_AP, NL80211_CMD_STOP_AP};
  const auto command = static_cast<const genlmsghdr*>(mnl_nlmsg_get_payload(msg))->cmd;
  if (std::find(kOfStations.begin(), kOfStations.end(), command) != kOfStations.end()) {
    *static_cast<bool*>(cbData) = true;
  }
}

}  // namespace

std::optional<Stations::value_type> stationOf(const nlmsghdr& msg) {
  const std::string mac = framework::macText(attributeOf(msg, NL80211_ATTR_MAC));
  const nlattr* const info = attributeOf(msg, NL80211_ATTR_STA_INFO);
  if (mac.empty() || info == nullptr) return std::nullopt;
  nl80211_sta_flag_update flags{};
  const nlattr* const told = framework::findNested(*info, NL80211_STA_INFO_STA_FLAGS);
  if (told != nullptr && mnl_attr_get_payload_len(told) >= sizeof(flags)) {
    std::memcpy(&flags, mnl_attr_get_payload(told), sizeof(flags));
  }
  constexpr std::uint32_t kAuthorised = 1U << NL80211_STA_FLAG_AUTHORIZED;
  return Stations::value_type(mac,
                              (flags.mask & kAuthorised) == 0 || (flags.set & kAuthorised) != 0);
}

Nl80211::Nl80211(framework::EventLoop& loop, std::function<void()> changed)
    : changed_(std::move(changed)),
      links_(NETLINK_ROUTE, RTMGRP_LINK),
      news_(NETLINK_GENERIC, 0),
      questions_(NETLINK_GENERIC, 0) {
  for (const int fd : {links_.socketFd, news_.socketFd}) {
    loop.watch(fd, ready, this, nullptr, POLLIN);
  }
}

std::optional<AccessPoint> Nl80211::look(const std::string& name) {
  if (!open()) return AccessPoint{{}, "the kernel has no nl80211 (module cfg80211)"};
  const unsigned int index = if_nametoindex(name.c_str());
  if (index == 0) return AccessPoint{{}, "there is no such interface"};
  Question typeQuestion(family_, NL80211_CMD_GET_INTERFACE, NLM_F_ACK);
  mnl_attr_put_u32(typeQuestion.header, NL80211_ATTR_IFINDEX, index);
  std::uint32_t type = NL80211_IFTYPE_UNSPECIFIED;
  if (!ask(questions_, typeQuestion, takeType, &type) && errno != ENODEV) {
    if (errno == ENOENT) family_ = 0;  // its module has gone; it comes back under another number
    return std::nullopt;
  }
  if (!isAccessPoint(type)) return AccessPoint{{}, "it is no access point"};
  Question question(family_, NL80211_CMD_GET_STATION, NLM_F_DUMP);
  mnl_attr_put_u32(question.header, NL80211_ATTR_IFINDEX, index);
  // A list comes in parts. A station that leaves meanwhile moves the others up, and one of them is
  // missing. Two lists that agree miss none.
  constexpr int kTries = 5;
  std::optional<Stations> before;
  for (int i = 0; i < kTries; ++i) {
    Stations now;
    if (!ask(questions_, question, takeStation, &now)) {
      if (errno != EOPNOTSUPP) return std::nullopt;
      return AccessPoint{{}, "its driver lists no stations"};
    }
    if (now == before) return AccessPoint{std::move(now), {}};
    before = std::move(now);
  }
  return std::nullopt;
}

bool Nl80211::open() {
  if (family_ != 0) return true;
  Family family;
  Question question(GENL_ID_CTRL, CTRL_CMD_GETFAMILY, NLM_F_ACK);
  mnl_attr_put_strz(question.header, CTRL_ATTR_FAMILY_NAME, NL80211_GENL_NAME);
  if (!ask(questions_, question, takeFamily, &family) ||
      setsockopt(news_.socketFd, SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, &family.group,
                 sizeof(family.group)) != 0) {
    return false;
  }
  family_ = family.id;
  return true;
}

void Nl80211::ready(int fd, void* cbData) {
  auto* const self = static_cast<Nl80211*>(cbData);
  const bool ofLinks = fd == self->links_.socketFd;
  bool changed = ofLinks;
  ZanNetlinkSocket& socket = ofLinks ? self->links_ : self->news_;
  if (socket.NetlinkRecv(0, takeNews, &changed) < 0 || changed) self->changed_();
}

}  // namespace zanhost
