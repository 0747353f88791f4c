// Radios, over generic netlink; the rest with iw(8), ip(8) and hostapd(8).
#include "lab/AccessPoint.h"

#include <libmnl/libmnl.h>
#include <linux/genetlink.h>
#include <linux/nl80211.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <functional>

#include "base/Patience.h"
#include "lab/Error.h"

namespace lab {
namespace {

// The kernel's drivers/net/wireless/mac80211_hwsim.h (since 6.9 under virtual/).
constexpr char kRadioFamily[] = "MAC80211_HWSIM";
constexpr std::uint8_t kNewRadio = 4;
constexpr std::uint16_t kDestroyOnClose = 16;

constexpr char kNetwork[] = "zan";
constexpr char kFrequency[] = "2412";  // MHz: channel 1

/// Sends one request of generic netlink. Returns the number of the family that the answer names, if
/// it names one. Throws Error, with |what|, when the kernel refuses.
std::uint16_t ask(mnl_socket* socket, const std::string& what, std::uint16_t family,
                  std::uint8_t command, const std::function<void(nlmsghdr*)>& fill) {
  alignas(nlmsghdr) std::array<char, 8192> buffer{};
  nlmsghdr* const msg = mnl_nlmsg_put_header(buffer.data());
  msg->nlmsg_type = family;
  msg->nlmsg_flags = NLM_F_REQUEST | (family == GENL_ID_CTRL ? 0 : NLM_F_ACK);  // one answer each
  auto* const own = mnl_nlmsg_put_extra_header(msg, sizeof(genlmsghdr));
  static_cast<genlmsghdr*>(own)->cmd = command;
  fill(msg);
  if (mnl_socket_sendto(socket, msg, msg->nlmsg_len) < 0 ||
      mnl_socket_recvfrom(socket, buffer.data(), buffer.size()) < 0) {
    throw systemError(what);
  }
  if (msg->nlmsg_type == NLMSG_ERROR) {
    const int error = static_cast<const nlmsgerr*>(mnl_nlmsg_get_payload(msg))->error;
    if (error < 0) throw systemError(what, -error);
    return 0;  // a number above 0 is that of a new radio
  }
  std::uint16_t named = 0;
  const auto look = [](const nlattr* attribute, void* data) {
    const bool isNumber = mnl_attr_get_type(attribute) == CTRL_ATTR_FAMILY_ID;
    if (isNumber) *static_cast<std::uint16_t*>(data) = mnl_attr_get_u16(attribute);
    return MNL_CB_OK;
  };
  mnl_attr_parse(msg, GENL_HDRLEN, look, &named);
  return named;
}

std::uint16_t familyNumber(mnl_socket* socket, const char* name) {
  return ask(socket, std::string("the kernel has no ") + name, GENL_ID_CTRL, CTRL_CMD_GETFAMILY,
             [&](nlmsghdr* msg) { mnl_attr_put_strz(msg, CTRL_ATTR_FAMILY_NAME, name); });
}

/// The gateway's address in the network of a client's |address|.
std::string gatewayOf(std::string address) {
  address.back() = '1';
  return address;
}

}  // namespace

std::string AccessPoint::obstacle() {
  if (!std::filesystem::exists("/sys/module/mac80211_hwsim")) {
    return "the kernel has no simulated radios (modprobe mac80211_hwsim radios=0)";
  }
  for (const char* program : {"iw", "hostapd"}) {
    if (base::findProgram(program, "/usr/sbin:/sbin:/usr/bin").empty()) {
      return std::string("there is no ") + program + " (it is in the Debian package of that name)";
    }
  }
  return {};
}

AccessPoint::AccessPoint(const HotspotNetwork& network, Wiring wiring)
    : network_(network),
      holder_(wiring == Wiring::kBridged ? "br0" : kInterface),
      radios_(network.gateway().run([] { return mnl_socket_open2(NETLINK_GENERIC, SOCK_CLOEXEC); }),
              mnl_socket_close),
      configuration_(std::string("interface=") + kInterface + "\nssid=" + kNetwork +
                     "\ndriver=nl80211\nhw_mode=g\nchannel=1\n" +
                     (wiring == Wiring::kBridged ? "bridge=" + holder_ + "\n" : "")) {
  if (wiring == Wiring::kBridged) {
    Process::runIpBatch(network.gateway(), "link add " + holder_ + " up type bridge\n");
  }
  makeRadios();
  start();
}

void AccessPoint::makeRadios() {
  mnl_socket* const socket = radios_.get();
  if (socket == nullptr || mnl_socket_bind(socket, 0, MNL_SOCKET_AUTOPID) != 0) {
    throw systemError("no socket of generic netlink");
  }
  const std::uint16_t simulator = familyNumber(socket, kRadioFamily);
  const std::uint16_t wireless = familyNumber(socket, NL80211_GENL_NAME);
  for (std::size_t radio = 0; radio <= network_.clientCount(); ++radio) {
    ask(socket, "cannot make a radio", simulator, kNewRadio,
        [](nlmsghdr* msg) { mnl_attr_put(msg, kDestroyOnClose, 0, nullptr); });
  }
  for (std::size_t i = 0; i < network_.clientCount(); ++i) {
    const std::string name = "wlan" + std::to_string(i + 1);
    const NetNamespace& client = network_.clientNamespace(i);
    const unsigned index = network_.gateway().run([&] { return if_nametoindex(name.c_str()); });
    ask(socket, "cannot move " + name, wireless, NL80211_CMD_SET_WIPHY_NETNS, [&](nlmsghdr* msg) {
      mnl_attr_put_u32(msg, NL80211_ATTR_IFINDEX, index);
      mnl_attr_put_u32(msg, NL80211_ATTR_NETNS_FD, static_cast<std::uint32_t>(client.fd()));
    });
    Process::runIpBatch(client, "link del eth0\nlink set " + name + " name eth0 address " +
                                    network_.client(i).mac + "\n");
    network_.attachClient(i);
  }
}

void AccessPoint::start() {
  const NetNamespace& gateway = network_.gateway();
  daemon_.emplace(
      std::vector<std::string>{"hostapd", "/proc/" + std::to_string(::getpid()) + "/fd/" +
                                              std::to_string(configuration_.fd())},
      &gateway);
  const auto isUp = [&] {
    const std::string info = Process::runChecked({"iw", "dev", kInterface, "info"}, &gateway);
    return info.find(std::string("ssid ") + kNetwork) != std::string::npos;
  };
  if (!base::eventually(isUp)) throw Error("hostapd does not start its access point");
  std::string addresses;  // of IPv6 they went with the link
  for (std::size_t i = 0; i < network_.clientCount(); ++i) {
    const HotspotNetwork::Client& client = network_.client(i);
    addresses += "addr replace " + gatewayOf(client.ipv4) + "/24 dev " + holder_ +
                 "\naddr replace " + gatewayOf(client.ipv6) + "/64 dev " + holder_ + " nodad\n";
  }
  Process::runIpBatch(gateway, addresses);
}

void AccessPoint::stop() {
  daemon_->signal(SIGTERM);
  if (!daemon_->waitFor()) throw Error("hostapd does not end");
}

void AccessPoint::join(std::size_t i) const {
  const NetNamespace& client = network_.clientNamespace(i);
  // iw(8) can wait itself, but for ever when it is told too early or not at all.
  const auto joined = [&] {
    const std::string link = Process::runChecked({"iw", "dev", "eth0", "link"}, &client);
    if (link.starts_with("Connected to")) return true;
    // Refused while the attempt before goes on.
    static_cast<void>(
        Process::run({"iw", "dev", "eth0", "connect", kNetwork, kFrequency}, &client));
    return false;
  };
  if (!base::eventually(joined)) throw Error("a client cannot join the access point");
}

void AccessPoint::leave(std::size_t i) const {
  Process::runChecked({"iw", "dev", "eth0", "disconnect"}, &network_.clientNamespace(i));
}

void AccessPoint::throwOut(std::size_t i) const {
  Process::runChecked({"iw", "dev", kInterface, "station", "del", network_.client(i).mac},
                      &network_.gateway());
}

}  // namespace lab
