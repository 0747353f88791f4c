// Neighbour notifications, one behind the other as a receive buffer holds them.
#include <libmnl/libmnl.h>
#include <linux/rtnetlink.h>

#include <array>
#include <csetjmp>
#include <csignal>
#include <cstring>

#include "ctmgr/ZanNetlinkMgr.h"
#include "fuzz/FuzzHost.h"

namespace {

struct Neighbours : ZanNetlinkMgr {
  using ZanNetlinkMgr::neighInfoMap;
  using ZanNetlinkMgr::tableMutex;
  using ZanNetlinkMgr::ZanNetlinkMgr;
};

/// IPv4 and IPv6 text by MAC text.
using Table = std::map<std::string, std::array<std::string, 2>>;

/// Applies a new neighbour to |table|; false where the walk over the attributes must abort. The
/// walk has the padded family header in its budget although it begins behind that.
bool applied(const nlmsghdr* msg, Table& table) {
  const auto* header = static_cast<const ndmsg*>(mnl_nlmsg_get_payload(msg));
  const auto* attribute = reinterpret_cast<const nlattr*>(header + 1);
  auto left = static_cast<int>(msg->nlmsg_len - sizeof(*msg));
  std::uint8_t address[16] = {};
  std::uint8_t link[6] = {};
  int family = AF_UNSPEC;
  for (; mnl_attr_ok(attribute, left); attribute = mnl_attr_next(attribute)) {
    left -= MNL_ALIGN(attribute->nla_len);
    if (attribute->nla_type == NDA_LLADDR) std::memcpy(link, attribute + 1, sizeof(link));
    if (attribute->nla_type != NDA_DST) continue;
    std::memcpy(address, attribute + 1, sizeof(address));
    family = header->ndm_family;
  }
  if (left < 0) return false;
  const int prefix = (address[0] << 8 | address[1]) & 0xffc0;
  const bool local = address[0] == 0xff || prefix == 0xfe80 || prefix == 0xfec0;
  char mac[18];
  std::snprintf(mac, sizeof(mac), "%02x:%02x:%02x:%02x:%02x:%02x", link[0], link[1], link[2],
                link[3], link[4], link[5]);
  if ((family == AF_INET6 && local) || mac == std::string("00:00:00:00:00:00")) return true;
  const bool known = family == AF_INET6 || family == AF_INET;
  table[mac][family == AF_INET6] = known ? addressText(family, address) : "";
  return true;
}

sigjmp_buf beforeAbort;

/// Whether the decoder takes |msg| without aborting.
bool decodes(Neighbours& neighbours, nlmsghdr* msg) {
  ZanNetlinkMgr::zanNlNeighInfo info{};
  const auto before = std::signal(SIGABRT, [](int) { siglongjmp(beforeAbort, 1); });
  const bool aborted = sigsetjmp(beforeAbort, 1) != 0;
  if (!aborted) neighbours.nlDecodeRtmNeigh(msg, msg->nlmsg_len, &info);
  std::signal(SIGABRT, before);
  return !aborted;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static FuzzHost& host = *new FuzzHost;
  Neighbours neighbours(host.host.zan.zanCom, host.host.zan.zanDsm, host.utils);
  Bytes buffer(data, data + size);
  buffer.resize(size + kNetlinkReceiveSlack);
  Table expected;
  for (std::size_t at = 0; at < size;) {
    auto* msg = reinterpret_cast<nlmsghdr*>(buffer.data() + at);
    const std::size_t left = size - at;
    if (msg->nlmsg_len == 0 || msg->nlmsg_len > left) msg->nlmsg_len = static_cast<unsigned>(left);
    Table after = expected;
    const bool sound = applied(msg, after);
    require(decodes(neighbours, msg) == sound, "abort");
    if (!sound) return 0;
    ZanNetlinkMgr::HandleNlMsg(&neighbours, msg, msg->nlmsg_len);
    if (msg->nlmsg_type == RTM_NEWNEIGH) expected = after;
    Table actual;
    const ctmgr::MutexLock lock(neighbours.tableMutex);
    for (const auto& [mac, entry] : neighbours.neighInfoMap) {
      require(mac == entry.macAddr, "key");
      actual[mac] = {entry.ipv4Addr, entry.ipv6Addr};
    }
    require(actual == expected, "table");
    at += NLMSG_ALIGN(msg->nlmsg_len);
  }
  return 0;
}
