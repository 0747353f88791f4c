#include "bench/NeighbourTable.h"

#include <arpa/inet.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netinet/ether.h>
#include <sys/socket.h>

#include <array>
#include <optional>

#include "host/ZanNetlinkSocket.h"
#include "lab/Error.h"
#include "lab/NetlinkWriter.h"
#include "lab/Process.h"
#include "refhost/framework/NetlinkMessages.h"

namespace bench {
namespace {

/// Without link-local addresses, for which the kernel would make neighbours of its own.
constexpr char kInterface[] = "bench0";
constexpr char kMakeInterface[] =
    "link add bench0 type veth peer name bench1\n"
    "link set bench0 addrgenmode none\n"
    "link set bench1 addrgenmode none\n"
    "link set bench1 up\n"
    "link set bench0 up\n";

/// Appends an RTM_NEWNEIGH message: the kernel's notification and the request for it are alike.
void writeMessage(lab::NetlinkWriter& messages, const Neighbour& neighbour, int interface,
                  std::uint32_t sequence, bool acknowledge) {
  const bool ipv6 = neighbour.address.find(':') != std::string::npos;
  in6_addr address{};
  ether_addr mac{};
  if (inet_pton(ipv6 ? AF_INET6 : AF_INET, neighbour.address.c_str(), &address) != 1 ||
      ether_aton_r(neighbour.mac.c_str(), &mac) == nullptr) {
    throw lab::Error("not a neighbour: " + neighbour.address + " at " + neighbour.mac);
  }
  constexpr std::uint16_t kFlags = NLM_F_REQUEST | NLM_F_CREATE | NLM_F_REPLACE;
  const std::size_t start =
      messages.beginMessage(RTM_NEWNEIGH, acknowledge ? kFlags | NLM_F_ACK : kFlags, sequence);
  ndmsg body{};
  body.ndm_family = ipv6 ? AF_INET6 : AF_INET;
  body.ndm_ifindex = interface;
  body.ndm_state = NUD_PERMANENT;
  messages.append(body);
  messages.put(NDA_DST, &address, ipv6 ? sizeof(in6_addr) : sizeof(in_addr));
  messages.put(NDA_LLADDR, &mac, sizeof(mac));
  messages.endMessage(start);
}

}  // namespace

NeighbourTable::NeighbourTable(const lab::NetNamespace& where) {
  lab::Process::runIpBatch(where, kMakeInterface);
  where.run([this] {
    interface_ = static_cast<int>(if_nametoindex(kInterface));
    socket_.reset(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
    if (!socket_.valid()) throw lab::systemError("cannot create a route netlink socket");
  });
}

void NeighbourTable::set(const std::vector<Neighbour>& neighbours) {
  lab::NetlinkWriter messages;
  ++sequence_;
  for (const Neighbour& neighbour : neighbours) {
    writeMessage(messages, neighbour, interface_, sequence_, &neighbour == &neighbours.back());
  }
  if (!messages.send(socket_.get())) {
    throw lab::systemError("cannot tell the kernel of neighbours");
  }
  awaitAcknowledgement(sequence_);
}

std::vector<unsigned char> NeighbourTable::announcement(const Neighbour& neighbour) {
  lab::NetlinkWriter message;
  writeMessage(message, neighbour, 0, 0, false);
  std::vector<unsigned char> bytes = message.bytes();
  bytes.resize(bytes.size() + kNetlinkReceiveSlack);
  return bytes;
}

void NeighbourTable::awaitAcknowledgement(std::uint32_t sequence) {
  std::optional<int> answer;
  while (!answer) {
    alignas(nlmsghdr) std::array<unsigned char, 8192> buffer;
    const ssize_t got = recv(socket_.get(), buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (got < 0) throw lab::systemError("no acknowledgement of a neighbour");
    framework::forEachNetlinkMessage(
        buffer.data(), static_cast<std::size_t>(got), [&](nlmsghdr* msg) {
          if (msg->nlmsg_type != NLMSG_ERROR || msg->nlmsg_seq != sequence) return;
          answer = framework::netlinkPayload<nlmsgerr>(msg)->error;
        });
  }
  if (*answer != 0) throw lab::systemError("the kernel refuses a neighbour", -*answer);
}

}  // namespace bench
