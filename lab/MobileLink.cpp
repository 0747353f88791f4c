#include "lab/MobileLink.h"

#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <fstream>

#include "lab/Error.h"
#include "lab/IpAddress.h"
#include "lab/Process.h"
#include "refhost/UniqueFd.h"

namespace lab {
namespace {

constexpr std::uint16_t kPort = 9;  // discard (RFC 863)

/// Different in all processes, and for each link of this one.
std::string uniqueName() {
  static std::atomic<unsigned> count{0};
  return "ww" + std::to_string(::getpid()) + "n" + std::to_string(count++);
}

void sendDatagram(const NetNamespace& from, const std::string& to) {
  const IpAddress address(to);
  sockaddr_storage target{};
  const socklen_t length = address.toSockaddr(kPort, target);
  const UniqueFd fd =
      from.run([&] { return UniqueFd(::socket(address.family(), SOCK_DGRAM | SOCK_CLOEXEC, 0)); });
  const auto* destination = reinterpret_cast<const sockaddr*>(&target);
  if (::sendto(fd.get(), "x", 1, 0, destination, length) != 1) {
    throw systemError("cannot send to " + to);
  }
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
  Process::runIpBatch(gateway_, "link add name " + name_ + " type veth peer name net0 netns " +
                                    network_.path() + "\nlink set " + name_ +
                                    " addrgenmode none\n");
  Process::runIpBatch(network_, "link set net0 addrgenmode none\nlink set net0 up\naddr add " +
                                    ipv4Net_ + "2/24 dev net0\naddr add " + ipv6Net_ +
                                    "2/64 dev net0 nodad\n");
}

void MobileLink::connect() const {
  Process::runIpBatch(gateway_, "link set " + name_ + " up\naddr replace " + ipv4() + "/24 dev " +
                                    name_ + "\naddr replace " + ipv6Net_ + "1/64 dev " + name_ +
                                    " nodad\n");
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
  sendDatagram(gateway_, (family == AF_INET ? ipv4Net_ : ipv6Net_) + "2");
}

void MobileLink::sendIn(int family) const {
  sendDatagram(network_, (family == AF_INET ? ipv4Net_ : ipv6Net_) + "1");
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
