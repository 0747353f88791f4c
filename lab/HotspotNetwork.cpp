// A hotspot of network namespaces.
#include "lab/HotspotNetwork.h"

#include <array>
#include <cstdio>

#include "lab/Error.h"
#include "lab/Process.h"
#include "lab/Socket.h"

namespace lab {
namespace {

// The last byte of a client's MAC address is its index plus this.
constexpr std::size_t kFirstMacByte = 10;

std::string hex(std::size_t number, int digits) {
  std::array<char, 20> text{};
  std::snprintf(text.data(), text.size(), "%0*zx", digits, number);
  return text.data();
}

std::string ipv4Net(std::size_t i) {
  return "10.43." + std::to_string(i) + ".";
}
std::string ipv6Net(std::size_t i) {
  return "2001:db8:43:" + hex(i, 1) + "::";
}

HotspotNetwork::Client describeClient(std::size_t i, const std::set<std::size_t>& ipv6Only) {
  HotspotNetwork::Client client;
  client.name = std::string(1, static_cast<char>('A' + i));
  client.mac = "02:00:00:00:43:" + hex(i + kFirstMacByte, 2);
  if (!ipv6Only.contains(i)) client.ipv4 = ipv4Net(i) + "2";
  client.ipv6 = canonicalIp(ipv6Net(i) + "2");
  client.gatewayInterface = "ap" + std::to_string(i);
  return client;
}

// Defaults come from the machine's own settings, so each one that matters is set. Without
// duplicate address detection an IPv6 address is usable at once.
void prepareHost(const NetNamespace& where) {
  for (const char* scope : {"all", "default"}) {
    const std::string ipv4 = std::string("ipv4/conf/") + scope + "/";
    const std::string ipv6 = std::string("ipv6/conf/") + scope + "/";
    where.setSysctl((ipv4 + "rp_filter").c_str(), "0");
    where.setSysctl((ipv6 + "disable_ipv6").c_str(), "0");
    where.setSysctl((ipv6 + "accept_dad").c_str(), "0");
    where.setSysctl((ipv6 + "accept_ra").c_str(), "0");
  }
}

void prepareRouter(const NetNamespace& where) {
  prepareHost(where);
  where.setSysctl("ipv4/ip_forward", "1");
  where.setSysctl("ipv6/conf/all/forwarding", "1");
}

std::string clientAddressing(const HotspotNetwork::Client& client, std::size_t i) {
  std::string lines = "link set eth0 up\n";
  if (!client.ipv4.empty()) {
    lines += "addr replace " + client.ipv4 + "/24 dev eth0\n";
    lines += "route replace default via " + ipv4Net(i) + "1\n";
  }
  lines += "addr replace " + client.ipv6 + "/64 dev eth0 nodad\n";
  lines += "route replace ::/0 via " + ipv6Net(i) + "1\n";
  return lines;
}

}  // namespace

HotspotNetwork::HotspotNetwork(const Options& options) {
  if (options.clients > kMaxClients) {
    throw Error("a hotspot of the lab has at most " + std::to_string(kMaxClients) + " clients");
  }
  prepareRouter(gateway_);
  prepareHost(upstream_);
  buildUpstream();
  buildFirewall();
  for (std::size_t i = 0; i < options.clients; ++i) {
    clients_.push_back(describeClient(i, options.ipv6Only));
    clientNamespaces_.emplace_back();
    prepareHost(clientNamespaces_.back());
    buildClient(i);
  }
}

const NetNamespace& HotspotNetwork::clientNamespace(std::size_t i) const {
  return clientNamespaces_.at(i);
}

const HotspotNetwork::Client& HotspotNetwork::client(std::size_t i) const {
  return clients_.at(i);
}

ConntrackEntries HotspotNetwork::entriesOf(std::size_t i) const {
  return entriesOf(i, readConntrackTable(gateway_));
}

ConntrackEntries HotspotNetwork::entriesOf(std::size_t i, ConntrackEntries entries) const {
  const Client& owner = client(i);
  std::erase_if(entries, [&owner](const ConntrackEntry& entry) {
    const bool isOwn = entry.concerns(owner.ipv4) || entry.concerns(owner.ipv6);
    return !isOwn || !entry.isTcpOrUdp();
  });
  return entries;
}

void HotspotNetwork::detachClient(std::size_t i) const {
  Process::runChecked({"ip", "link", "set", "eth0", "down"}, &clientNamespace(i));
}

void HotspotNetwork::attachClient(std::size_t i) const {
  // IPv6 addresses and all routes went with the link.
  Process::runIpBatch(clientNamespace(i), clientAddressing(clients_.at(i), i));
}

void HotspotNetwork::buildUpstream() const {
  const std::string gateway4 = kGatewayIpv4;
  const std::string gateway6 = kGatewayIpv6;
  Process::runIpBatch(gateway_, "link set lo up\nlink add wan0 type veth peer name eth0 netns " +
                                    upstream_.path() + "\nlink set wan0 up\naddr add " + gateway4 +
                                    "/24 dev wan0\naddr add " + gateway6 + "/64 dev wan0 nodad\n");
  Process::runIpBatch(upstream_, std::string("link set lo up\nlink set eth0 up\naddr add ") +
                                     kUpstreamIpv4 + "/24 dev eth0\naddr add " + kUpstreamIpv6 +
                                     "/64 dev eth0 nodad\nroute add 2001:db8:43::/48 via " +
                                     gateway6 + "\n");
}

void HotspotNetwork::buildClient(std::size_t i) const {
  const Client& client = clients_.at(i);
  const std::string& ap = client.gatewayInterface;
  Process::runIpBatch(gateway_, "link add " + ap + " type veth peer name eth0 address " +
                                    client.mac + " netns " + clientNamespaces_.at(i).path() +
                                    "\nlink set " + ap + " up\naddr add " + ipv4Net(i) +
                                    "1/24 dev " + ap + "\naddr add " + ipv6Net(i) + "1/64 dev " +
                                    ap + " nodad\n");
  Process::runIpBatch(clientNamespaces_.at(i), "link set lo up\n" + clientAddressing(client, i));
}

// The IPv6 rule lets nothing through that would not pass anyway: it is there because a
// namespace tracks a family only while some rule needs it.
void HotspotNetwork::buildFirewall() const {
  Process::runChecked(
      {"iptables", "-t", "nat", "-A", "POSTROUTING", "-o", "wan0", "-j", "MASQUERADE"}, &gateway_);
  Process::runChecked({"ip6tables", "-A", "FORWARD", "-m", "conntrack", "--ctstate",
                       "ESTABLISHED,RELATED", "-j", "ACCEPT"},
                      &gateway_);
}

}  // namespace lab
