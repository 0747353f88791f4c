#include "bench/NeighbourTable.h"

#include <arpa/inet.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netinet/ether.h>
#include <sys/socket.h>

#include <array>
#include <cstring>
#include <optional>

#include "host/ZanNetlinkSocket.h"
#include "lab/Error.h"
#include "lab/Process.h"
#include "refhost/NetlinkMessages.h"

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

void append(std::vector<unsigned char>& bytes, const void* data, std::size_t size) {
  const auto* begin = static_cast<const unsigned char*>(data);
  bytes.insert(bytes.end(), begin, begin + size);
  bytes.resize(NLMSG_ALIGN(bytes.size()));
}

void appendAttribute(std::vector<unsigned char>& bytes, unsigned short type, const void* value,
                     std::size_t size) {
  const rtattr header{static_cast<unsigned short>(sizeof(rtattr) + size), type};
  append(bytes, &header, sizeof(header));
  append(bytes, value, size);
}

/// Appends an RTM_NEWNEIGH message: the kernel's notification and the request for it are alike.
void appendMessage(std::vector<unsigned char>& bytes, const Neighbour& neighbour, int interface,
                   std::uint32_t sequence, bool acknowledge) {
  const bool ipv6 = neighbour.address.find(':') != std::string::npos;
  in6_addr address{};
  ether_addr mac{};
  if (inet_pton(ipv6 ? AF_INET6 : AF_INET, neighbour.address.c_str(), &address) != 1 ||
      ether_aton_r(neighbour.mac.c_str(), &mac) == nullptr) {
    throw lab::Error("not a neighbour: " + neighbour.address + " at " + neighbour.mac);
  }
  const std::size_t start = bytes.size();
  nlmsghdr header{};
  header.nlmsg_type = RTM_NEWNEIGH;
  header.nlmsg_flags = NLM_F_REQUEST | NLM_F_CREATE | NLM_F_REPLACE;
  if (acknowledge) header.nlmsg_flags |= NLM_F_ACK;
  header.nlmsg_seq = sequence;
  append(bytes, &header, sizeof(header));
  ndmsg body{};
  body.ndm_family = ipv6 ? AF_INET6 : AF_INET;
  body.ndm_ifindex = interface;
  body.ndm_state = NUD_PERMANENT;
  append(bytes, &body, sizeof(body));
  appendAttribute(bytes, NDA_DST, &address, ipv6 ? sizeof(in6_addr) : sizeof(in_addr));
  appendAttribute(bytes, NDA_LLADDR, &mac, sizeof(mac));
  header.nlmsg_len = static_cast<std::uint32_t>(bytes.size() - start);
  std::memcpy(bytes.data() + start, &header, sizeof(header));
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
  std::vector<unsigned char> messages;
  ++sequence_;
  for (const Neighbour& neighbour : neighbours) {
    appendMessage(messages, neighbour, interface_, sequence_, &neighbour == &neighbours.back());
  }
  sockaddr_nl kernel{};
  kernel.nl_family = AF_NETLINK;
  if (sendto(socket_.get(), messages.data(), messages.size(), 0,
             reinterpret_cast<const sockaddr*>(&kernel), sizeof(kernel)) < 0) {
    throw lab::systemError("cannot tell the kernel of neighbours");
  }
  awaitAcknowledgement(sequence_);
}

std::vector<unsigned char> NeighbourTable::announcement(const Neighbour& neighbour) {
  std::vector<unsigned char> bytes;
  appendMessage(bytes, neighbour, 0, 0, false);
  bytes.resize(bytes.size() + kNetlinkReceiveSlack);
  return bytes;
}

void NeighbourTable::awaitAcknowledgement(std::uint32_t sequence) {
  std::optional<int> answer;
  while (!answer) {
    alignas(nlmsghdr) std::array<unsigned char, 8192> buffer;
    const ssize_t got = recv(socket_.get(), buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (got < 0) throw lab::systemError("no acknowledgement of a neighbour");
    forEachNetlinkMessage(buffer.data(), static_cast<std::size_t>(got), [&](nlmsghdr* msg) {
      if (msg->nlmsg_type != NLMSG_ERROR || msg->nlmsg_seq != sequence) return;
      answer = netlinkPayload<nlmsgerr>(msg)->error;
    });
  }
  if (*answer != 0) throw lab::systemError("the kernel refuses a neighbour", -*answer);
}

}  // namespace bench
