// Neighbour notifications, one behind the other as a receive buffer holds them.
#include <linux/rtnetlink.h>

#include <csetjmp>
#include <csignal>
#include <cstring>

#include "ctmgr/ZanNetlinkMgr.h"
#include "fuzz/FuzzHost.h"
#include "fuzz/ReferenceReading.h"

namespace {

constexpr std::size_t kAttributes = sizeof(nlmsghdr) + sizeof(ndmsg);

struct Neighbours : ZanNetlinkMgr {
  using ZanNetlinkMgr::neighInfoMap;
  using ZanNetlinkMgr::ZanNetlinkMgr;
};

/// IPv4 and IPv6 text by MAC text.
using Table = std::map<std::string, std::pair<std::string, std::string>>;

/// Applies a new neighbour to |table|; false where the walk over the attributes must abort.
bool apply(const std::uint8_t* message, std::size_t length, Table& table) {
  const Bytes none(16);
  const std::uint8_t* address = none.data();
  const std::uint8_t* link = none.data();
  if (length < sizeof(nlmsghdr)) return false;
  std::size_t left = length - sizeof(nlmsghdr);
  for (const std::uint8_t* at = message + kAttributes; left >= 4;) {
    const std::size_t size = at[0] + 256U * at[1];
    if (size < 4 || size > left) break;
    const unsigned int type = at[2] + 256U * at[3];
    if (type == NDA_DST) address = at + 4;
    if (type == NDA_LLADDR) link = at + 4;
    const std::size_t step = (size + 3) / 4 * 4;
    if (step > left) return false;
    left -= step;
    at += step;
  }
  const int family = address == none.data() ? AF_UNSPEC : message[sizeof(nlmsghdr)];
  const int prefix = (address[0] << 8 | address[1]) & 0xffc0;
  const bool local = address[0] == 0xff || prefix == 0xfe80 || prefix == 0xfec0;
  if ((family == AF_INET6 && local) || std::equal(link, link + 6, none.data())) return true;
  char mac[18];
  std::snprintf(mac, sizeof(mac), "%02x:%02x:%02x:%02x:%02x:%02x", link[0], link[1], link[2],
                link[3], link[4], link[5]);
  (family == AF_INET6 ? table[mac].second : table[mac].first) =
      family == AF_INET6 || family == AF_INET ? addressText(family, address) : "";
  return true;
}

sigjmp_buf beforeAbort;

/// Whether the decoder takes |msg| without aborting.
bool decodes(Neighbours& neighbours, nlmsghdr* msg) {
  ZanNetlinkMgr::zanNlNeighInfo info{};
  struct sigaction ours {};
  struct sigaction before {};
  ours.sa_handler = [](int) { siglongjmp(beforeAbort, 1); };
  sigaction(SIGABRT, &ours, &before);
  const bool aborted = sigsetjmp(beforeAbort, 1) != 0;
  if (!aborted) neighbours.nlDecodeRtmNeigh(msg, msg->nlmsg_len, &info);
  sigaction(SIGABRT, &before, nullptr);
  return !aborted;
}

Table tableOf(const Neighbours& neighbours) {
  Table table;
  for (const auto& [mac, entry] : neighbours.neighInfoMap) {
    for (const char* text : {entry.ipv4Addr, entry.ipv6Addr, entry.macAddr}) {
      require(std::memchr(text, 0, kAddressTextSize) != nullptr, "a text without an end");
    }
    require(mac == entry.macAddr, "key");
    table[mac] = {entry.ipv4Addr, entry.ipv6Addr};
  }
  return table;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static FuzzHost& host = *new FuzzHost;
  Neighbours neighbours(host.host.zan.zanCom, host.host.zan.zanDsm, host.utils);
  Bytes buffer(data, data + size);
  buffer.resize(size + kNetlinkReceiveSlack);
  Table table;
  for (std::size_t at = 0; at < size;) {
    auto* msg = reinterpret_cast<nlmsghdr*>(buffer.data() + at);
    const std::size_t left = size - at;
    if (msg->nlmsg_len == 0 || msg->nlmsg_len > left) msg->nlmsg_len = static_cast<unsigned>(left);
    Table after = table;
    const bool sound = apply(buffer.data() + at, msg->nlmsg_len, after);
    require(decodes(neighbours, msg) == sound, "abort");
    if (!sound) return 0;
    ZanNetlinkMgr::HandleNlMsg(&neighbours, msg, msg->nlmsg_len);
    if (msg->nlmsg_type == RTM_NEWNEIGH) table = after;
    require(tableOf(neighbours) == table, "table");
    at += NLMSG_ALIGN(msg->nlmsg_len);
  }
  return 0;
}

extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t room);

/// Half of the inputs get attributes whose lengths fit.
extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size,
                                               std::size_t room, unsigned int seed) {
  size = LLVMFuzzerMutate(data, size, room);
  for (std::size_t at = kAttributes; seed % 2 == 0 && at + 4 <= size; at += (data[at] + 3U) & ~3U) {
    data[at] = static_cast<std::uint8_t>(std::min<std::size_t>(4 + data[at] % 28U, size - at));
    data[at + 1] = 0;
  }
  return size;
}
