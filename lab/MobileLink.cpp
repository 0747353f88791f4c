// A mobile-data interface and the network behind it.
#include "lab/MobileLink.h"

#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <sstream>

#include "lab/Process.h"
#include "lab/Socket.h"

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

/// For ip(8). Who knows its neighbour sends no packets of its own to find it (RFC 4861).
std::string knowNeighbour(const std::string& address, const char* mac, const std::string& device) {
  return "neigh replace " + address + " lladdr " + mac + " dev " + device + " nud permanent\n";
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
    const auto open = [family] { return boundSocket(family, SOCK_DGRAM, kPort); };
    gatewayPorts_[family] = gateway_.run(open);
    networkPorts_[family] = network_.run(open);
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
  const std::string& net = family == AF_INET ? ipv4Net_ : ipv6Net_;
  sendDatagram(gatewayPorts_.at(family).get(), SocketAddress(net + "2", kPort), "x");
}

void MobileLink::sendIn(int family) const {
  const std::string& net = family == AF_INET ? ipv4Net_ : ipv6Net_;
  sendDatagram(networkPorts_.at(family).get(), SocketAddress(net + "1", kPort), "x");
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
    std::istringstream rules(Process::runChecked({program, "-t", "mangle", "-S"}, &gateway_));
    for (std::string rule; std::getline(rules, rule);) {
      if (rule.find(name_) != std::string::npos) ++count;
    }
  }
  return count;
}

}  // namespace lab
