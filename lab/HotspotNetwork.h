// A hotspot of network namespaces.
#pragma once

#include <cstddef>
#include <set>
#include <string>
#include <vector>

#include "lab/ConntrackTable.h"
#include "lab/NetNamespace.h"

namespace lab {

/// A hotspot on one machine: clients, the gateway they are attached to, an upstream server.
///
///   client 0  eth0 ---- ap0  gateway  wan0 ---- eth0  upstream server
///   client 1  eth0 ---- ap1
///
/// Client i has 10.43.<i>.2/24 and 2001:db8:43:<i>::2/64, the gateway .1 and ::1 there. IPv4 is
/// masqueraded behind 203.0.113.1, IPv6 is routed. The gateway tracks connections of both
/// families. All addresses are usable as soon as the constructor returns, and nobody has sent
/// any traffic that would make the gateway learn a client's address.
///
/// Not thread-safe; detachClient() and attachClient() start a child (see Process).
class HotspotNetwork {
 public:
  static constexpr const char* kGatewayIpv4 = "203.0.113.1";
  static constexpr const char* kGatewayIpv6 = "2001:db8:ffff::1";
  static constexpr const char* kUpstreamIpv4 = "203.0.113.2";
  static constexpr const char* kUpstreamIpv6 = "2001:db8:ffff::2";
  static constexpr std::size_t kMaxClients = 26;

  struct Options {
    /// 0 to kMaxClients.
    std::size_t clients = 2;
    /// Indices of the clients without an IPv4 address.
    std::set<std::size_t> ipv6Only;
  };

  struct Client {
    /// "A", "B", .. "Z".
    std::string name;
    /// Lower case, e.g. "02:00:00:00:43:0a" for client 0.
    std::string mac;
    /// Empty if the client is IPv6-only.
    std::string ipv4;
    /// In the spelling of canonicalIp().
    std::string ipv6;
    /// The gateway's end of the client's link.
    std::string gatewayInterface;
  };

  HotspotNetwork() : HotspotNetwork(Options{}) {}
  /// Throws Error with what the failing tool said.
  explicit HotspotNetwork(const Options& options);

  [[nodiscard]] const NetNamespace& gateway() const { return gateway_; }
  [[nodiscard]] const NetNamespace& upstream() const { return upstream_; }
  [[nodiscard]] const NetNamespace& clientNamespace(std::size_t i) const;

  [[nodiscard]] std::size_t clientCount() const { return clients_.size(); }
  [[nodiscard]] const Client& client(std::size_t i) const;

  /// The TCP and UDP entries of client |i| in the gateway's table now (see readConntrackTable()).
  [[nodiscard]] ConntrackEntries entriesOf(std::size_t i) const;
  /// Those among |entries|.
  [[nodiscard]] ConntrackEntries entriesOf(std::size_t i, ConntrackEntries entries) const;

  /// The client walks away: its end of the link goes down, the gateway keeps its own. None of
  /// the client's packets get out any more, and none reach it.
  void detachClient(std::size_t i) const;
  /// A client that had walked away comes back with the same addresses.
  void attachClient(std::size_t i) const;

 private:
  void buildUpstream() const;
  void buildClient(std::size_t i) const;
  void buildFirewall() const;

  NetNamespace gateway_;
  NetNamespace upstream_;
  std::vector<Client> clients_;
  std::vector<NetNamespace> clientNamespaces_;
};

}  // namespace lab
