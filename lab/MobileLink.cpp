// A mobile-data interface and the network behind it.
#include "lab/MobileLink.h"

#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <fstream>

#include "lab/Error.h"
#include "lab/IpAddress.h"
#include "lab/Process.h"

namespace lab {
namespace {

constexpr std::uint16_t kPort = 9;  // discard (RFC 863)
constexpr char kGatewayMac[] = "02:00:00:00:51:01";
constexpr char kNetworkMac[] = "02:00:00:00:51:02";

/// Different in all processes, and for each link of this one.
std::string uniqueName() {
  static std::atomic<unsigned> count{0};
  return "ww" + std::to_string(::getpid()) + "n" + std::to_string(count++);
}

/// Bound to kPort of every address of |where|, also while others are.
base::UniqueFd openPort(const NetNamespace& where, int family) {
  base::UniqueFd fd =
      where.run([&] { return base::UniqueFd(::socket(family, SOCK_DGRAM | SOCK_CLOEXEC, 0)); });
  const int on = 1;
  ::setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_storage any{};
  const socklen_t length = IpAddress(family == AF_INET ? "0.0.0.0" : "::").toSockaddr(kPort, any);
  if (::bind(fd.get(), reinterpret_cast<const sockaddr*>(&any), length) != 0) {
    throw systemError("cannot bind the discard port");
  }
  return fd;
}

void sendDatagram(const base::UniqueFd& from, const std::string& to) {
  sockaddr_storage target{};
  const socklen_t length = IpAddress(to).toSockaddr(kPort, target);
  const auto* destination = reinterpret_cast<const sockaddr*>(&target);
  if (::sendto(from.get(), "x", 1, 0, destination, length) != 1) {
    throw systemError("cannot send to " + to);
  }
}

/// For ip(8). Who knows its neighbour sends no packets of its own to find it (RFC 4861).
std::string knowNeighbour(const std::string& address, const char* mac, const std::string& device) {
  return "neigh replace " + address + " lladdr " + mac + " dev " + device + " nud permanent\n";
}

std::size_t linesWith(const std::string& text, const std::string& word) {
  std::size_t count = 0;
  for (std::size_t at = 0; (at = text.find(word, at)) != std::string::npos; ++count) {
    at = text.find('\n', at);
    if (at == std::string::npos) return count + 1;
  }
  return count;
}

}  // namespace

MobileLink::MobileLink(const NetNamespace& gateway, std::size_t index)
    : gateway_(gateway),
      name_(uniqueName()),
      ipv4Net_("198.51." + std::to_string(index) + "."),
      ipv6Net_("2001:db8:51:" + std::to_string(index) + "::") {
  network_.setSysctl("ipv6/conf/default/accept_dad", "0");
  network_.setSysctl("ipv6/conf/default/accept_ra", "0");
  Process::runIpBatch(gateway_, "link add name " + name_ + " address " + kGatewayMac +
                                    " type veth peer name net0 address " + kNetworkMac + " netns " +
                                    network_.path() + "\nlink set " + name_ +
                                    " addrgenmode none\n");
  Process::runIpBatch(network_, "link set net0 addrgenmode none\nlink set net0 up\naddr add " +
                                    ipv4Net_ + "2/24 dev net0\naddr add " + ipv6Net_ +
                                    "2/64 dev net0 nodad\n" +
                                    knowNeighbour(ipv6Net_ + "1", kGatewayMac, "net0"));
  for (const int family : {AF_INET, AF_INET6}) {
    gatewayPorts_[family] = openPort(gateway_, family);
    networkPorts_[family] = openPort(network_, family);
  }
}

void MobileLink::connect() const {
  Process::runIpBatch(gateway_, "link set " + name_ + " up\naddr replace " + ipv4() + "/24 dev " +
                                    name_ + "\naddr replace " + ipv6Net_ + "1/64 dev " + name_ +
                                    " nodad\n" + knowNeighbour(ipv6Net_ + "2", kNetworkMac, name_));
}

void MobileLink::loseIpv4() const {
  Process::runIpBatch(gateway_, "addr del " + ipv4() + "/24 dev " + name_ + "\n");
}

void MobileLink::disconnect() const {
  Process::runIpBatch(gateway_, "link set " + name_ + " down\n");
}

void MobileLink::remove() const {
  Process::runIpBatch(gateway_, "link del " + name_ + "\n");
}

void MobileLink::sendOut(int family) const {
  sendDatagram(gatewayPorts_.at(family), (family == AF_INET ? ipv4Net_ : ipv6Net_) + "2");
}

void MobileLink::sendIn(int family) const {
  sendDatagram(networkPorts_.at(family), (family == AF_INET ? ipv4Net_ : ipv6Net_) + "1");
}

std::optional<int> MobileLink::remainingSeconds() const {
  std::ifstream file("/sys/class/xt_idletimer/timers/CT_" + name_);
  int seconds = 0;
  if (!(file >> seconds)) return std::nullopt;
  return seconds;
}

std::size_t MobileLink::rules() const {
  std::size_t count = 0;
  for (const char* program : {"iptables", "ip6tables"}) {
    count += linesWith(Process::runChecked({program, "-t", "mangle", "-S"}, &gateway_), name_);
  }
  return count;
}

}  // namespace lab
