// What the kernel's links and addresses say of mobile-data interfaces.
#include "refhost/zanhost/WwanMonitor.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <poll.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include "refhost/framework/HostLog.h"
#include "refhost/framework/HostSides.h"
#include "refhost/framework/Netlink.h"

namespace zanhost {
namespace {

constexpr unsigned int kGroups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR;

/// Room of each text in a record's character field.
constexpr std::size_t kTextSize = INET6_ADDRSTRLEN;

using Addresses = std::set<std::pair<std::string, int>>;

bool holds(const Addresses& addresses, const std::string& address) {
  const auto first = addresses.lower_bound({address, 0});
  return first != addresses.end() && first->first == address;
}

/// The first address of |family| in |addresses|, or nothing.
std::string firstOf(const Addresses& addresses, int family) {
  for (const auto& [text, prefix] : addresses) {
    if ((text.find(':') != std::string::npos) == (family == AF_INET6)) return text;
  }
  return {};
}

void setText(char* field, const std::string& text) {
  std::memset(field, 0, kTextSize);
  text.copy(field, kTextSize - 1);
}

/// The text of an interface's address; empty when |attribute|, which may be null, holds none.
std::string addressText(int family, const nlattr* attribute) {
  std::array<char, INET6_ADDRSTRLEN> text{};
  const std::size_t needed = family == AF_INET ? sizeof(in_addr) : sizeof(in6_addr);
  if (attribute == nullptr || mnl_attr_get_payload_len(attribute) < needed) return {};
  inet_ntop(family, mnl_attr_get_payload(attribute), text.data(), text.size());
  return text.data();
}

}  // namespace

WwanMonitor::WwanMonitor(Zan& zan) : zan_(zan) {}

WwanMonitor::~WwanMonitor() {
  if (socket_) zan_.zanCom.removeComEventHandler(socket_->socketFd);
}

bool WwanMonitor::follow(const std::vector<std::string>& names) {
  followed_.insert(names.begin(), names.end());
  if (followed_.empty()) return true;
  socket_ = std::make_unique<ZanNetlinkSocket>(NETLINK_ROUTE, kGroups);
  starting_ = true;
  const bool listed = synchronise();
  starting_ = false;
  if (!listed) {
    HOST_LOG(kLogError, "the kernel does not list its interfaces: %s", std::strerror(errno));
    return false;
  }
  for (const std::string& name : followed_) {
    const std::string lack = lacks(name);
    if (!lack.empty()) HOST_LOG(kLogNotice, "waiting for %s: %s", name.c_str(), lack.c_str());
  }
  return zan_.zanCom.addComEventHandler(socket_->socketFd, socketReady, this, nullptr, POLLIN) == 0;
}

std::string WwanMonitor::lacks(const std::string& name) const {
  const auto& records = HostSides::wwanInfoOf(zan_.zanDsm);
  const auto known = records.find(name);
  if (known != records.end() && known->second.status == ZAN_WWAN_STATUS_CONNECTED) return {};
  if (followed_.count(name) == 0) return "neither '--wwan' nor the command 'wwan' has connected it";
  const auto link = std::find_if(links_.begin(), links_.end(),
                                 [&](const auto& entry) { return entry.second.name == name; });
  if (link == links_.end()) return "there is no such interface";
  if (!link->second.up) return "its link is down";
  if (link->second.addresses.empty()) return "it has no address, link-local ones apart";
  return "the command 'wwan' has disconnected it";
}

bool WwanMonitor::synchronise() {
  constexpr int kTries = 5;  // each may be overrun by further changes
  std::map<int, Link> before = std::exchange(links_, {});
  bool listed = false;
  dumping_ = true;
  for (int i = 0; i < kTries && !listed; ++i) {
    links_.clear();
    listed = framework::receiveList(*socket_, RTM_GETLINK, messageReady, this) &&
             framework::receiveList(*socket_, RTM_GETADDR, messageReady, this);
  }
  dumping_ = false;
  stale_ = !listed;
  if (!listed) {
    links_ = std::move(before);
    return false;
  }
  for (const auto& [index, old] : before) {
    const auto now = links_.find(index);
    if (now == links_.end() || now->second.name != old.name) {
      forget(old);
      continue;
    }
    for (const auto& address : old.addresses) reportLost(now->second, address.first);
  }
  for (const auto& [index, link] : links_) update(link);
  return true;
}

void WwanMonitor::setApns(const std::string& name, std::list<ZanApnType> apns) {
  record(name).apnList = std::move(apns);
}

void WwanMonitor::socketReady(int /*fd*/, void* cbData) {
  auto* self = static_cast<WwanMonitor*>(cbData);
  const int received = self->socket_->NetlinkRecv(0, messageReady, self);
  if (received < 0 && errno == ENOBUFS) self->stale_ = true;
  if (self->stale_) self->synchronise();
}

void WwanMonitor::messageReady(void* cbData, nlmsghdr* msg, unsigned int /*len*/) {
  auto* self = static_cast<WwanMonitor*>(cbData);
  if (msg->nlmsg_type == RTM_NEWLINK || msg->nlmsg_type == RTM_DELLINK) self->onLink(*msg);
  if (msg->nlmsg_type == RTM_NEWADDR || msg->nlmsg_type == RTM_DELADDR) self->onAddress(*msg);
}

void WwanMonitor::onLink(const nlmsghdr& msg) {
  const auto* info = static_cast<const ifinfomsg*>(mnl_nlmsg_get_payload(&msg));
  if (info->ifi_family != AF_UNSPEC) return;  // a bridge's word about its port
  const nlattr* nameAttribute = framework::findAttribute(msg, sizeof(ifinfomsg), IFLA_IFNAME);
  const std::string name = nameAttribute == nullptr ? "" : mnl_attr_get_str(nameAttribute);
  const auto known = links_.find(info->ifi_index);
  const bool removed = msg.nlmsg_type == RTM_DELLINK;
  if (known != links_.end() && (removed || known->second.name != name)) {
    const Link old = known->second;
    links_.erase(known);
    forget(old);
  }
  if (removed || followed_.count(name) == 0) return;
  const auto [entry, isNew] = links_.try_emplace(info->ifi_index);
  Link& link = entry->second;
  link.name = name;
  link.up = (info->ifi_flags & IFF_UP) != 0 && (info->ifi_flags & IFF_RUNNING) != 0;
  // A link that was known by another name before has addresses that nobody will announce again.
  if (isNew && !dumping_) stale_ = true;
  update(link);
}

void WwanMonitor::onAddress(const nlmsghdr& msg) {
  const auto* info = static_cast<const ifaddrmsg*>(mnl_nlmsg_get_payload(&msg));
  const auto known = links_.find(static_cast<int>(info->ifa_index));
  if (known == links_.end() || info->ifa_scope >= RT_SCOPE_LINK) return;
  const nlattr* own = framework::findAttribute(msg, sizeof(ifaddrmsg), IFA_LOCAL);
  if (own == nullptr) own = framework::findAttribute(msg, sizeof(ifaddrmsg), IFA_ADDRESS);  // IPv6
  const std::string address = addressText(info->ifa_family, own);
  Link& link = known->second;
  if (msg.nlmsg_type == RTM_NEWADDR) {
    link.addresses.insert({address, info->ifa_prefixlen});
    update(link);
  } else if (link.addresses.erase({address, info->ifa_prefixlen}) != 0) {
    update(link);
    reportLost(link, address);
  }
}

/// Reports |address|, which |link| had, unless it still has it.
void WwanMonitor::reportLost(const Link& link, const std::string& address) {
  if (dumping_ || holds(link.addresses, address)) return;
  HOST_LOG(kLogNotice, "%s has lost %s", link.name.c_str(), address.c_str());
  const ZanDsmTextList payload{address};
  zan_.zanDsm.dispatchEvent(ZAN_DSM_EVENT_UPSTREAM_IP_LOST, &payload);
}

/// |link| is no more, or no longer of that name.
void WwanMonitor::forget(Link link) {
  link.up = false;
  const Addresses had = std::exchange(link.addresses, {});
  update(link);
  for (const auto& address : had) reportLost(link, address.first);
}

/// Brings the record up to date and reports the interface's coming and going. Who has lost all
/// addresses stays connected: only the link decides.
void WwanMonitor::update(const Link& link) {
  if (dumping_) return;
  _ZanDsmWwanInfoType& info = record(link.name);
  setText(info.text, firstOf(link.addresses, AF_INET));
  setText(info.text + kWwanSecondTextOffset, firstOf(link.addresses, AF_INET6));
  const bool connected = info.status == ZAN_WWAN_STATUS_CONNECTED;
  if (!connected && link.up && !link.addresses.empty()) {
    setStatus(link.name, ZAN_WWAN_STATUS_CONNECTED);
  } else if (connected && !link.up) {
    setStatus(link.name, ZAN_WWAN_STATUS_DISCONNECTED);
  }
}

void WwanMonitor::setStatus(const std::string& name, ZanWwanStatus status) {
  _ZanDsmWwanInfoType& info = record(name);
  info.status = static_cast<std::int32_t>(status);
  if (starting_) return;
  ZanDsmWwanStatusInfo payload{status, {}, info.apnList};
  name.copy(payload.ifaceName, sizeof(payload.ifaceName) - 1);
  HOST_LOG(kLogNotice, "%s is %s", name.c_str(),
           status == ZAN_WWAN_STATUS_CONNECTED ? "connected" : "disconnected");
  zan_.zanDsm.dispatchEvent(ZAN_DSM_EVENT_WWAN_STATUS, &payload);
}

/// The record of |name|; a new one is for the default access point.
_ZanDsmWwanInfoType& WwanMonitor::record(const std::string& name) {
  auto& all = HostSides::wwanInfoOf(zan_.zanDsm);
  const auto [entry, isNew] = all.try_emplace(name);
  if (isNew) entry->second.apnList = {ZAN_APN_TYPE_DEFAULT};
  return entry->second;
}

}  // namespace zanhost
