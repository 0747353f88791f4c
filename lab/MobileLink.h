// A mobile-data interface and the network behind it.
#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string>

#include "base/UniqueFd.h"
#include "lab/NetNamespace.h"

namespace lab {

/// A mobile-data interface of the gateway and the network behind it.
///
///   gateway  <name> 198.51.<i>.1, 2001:db8:51:<i>::1  ----  198.51.<i>.2, 2001:db8:51:<i>::2
///
/// Idle timers are one list for the whole machine, and their names come from the interface's, so
/// names differ between all links of all labs. Nothing is sent over a link unasked, once its first
/// few seconds are over, and a datagram brings no other IP packet with it.
///
/// Not thread-safe; everything but remainingSeconds() starts a child (see Process).
class MobileLink {
 public:
  /// Makes link |index|, 0 to 99, of |gateway|, which must outlive it; it is down and has no
  /// addresses. Throws Error.
  MobileLink(const NetNamespace& gateway, std::size_t index);

  [[nodiscard]] const std::string& name() const { return name_; }
  [[nodiscard]] std::string ipv4() const { return ipv4Net_ + "1"; }

  /// The link comes up with its addresses, loses its IPv4 address, goes down, goes away.
  void connect() const;
  void loseIpv4() const;
  void disconnect() const;
  void remove() const;

  /// One datagram over the link: from the gateway, or to it.
  void sendOut(int family) const;
  void sendIn(int family) const;

  /// What the kernel's idle timer of the link shows; nothing when there is no such timer.
  [[nodiscard]] std::optional<int> remainingSeconds() const;

  /// How many firewall rules, IPv4 and IPv6, name the link.
  [[nodiscard]] std::size_t rules() const;

 private:
  const NetNamespace& gateway_;
  NetNamespace network_;
  std::string name_;
  std::string ipv4Net_;
  std::string ipv6Net_;
  /// By family. Without a socket that takes a datagram the kernel would answer it.
  std::map<int, base::UniqueFd> gatewayPorts_;
  std::map<int, base::UniqueFd> networkPorts_;
};

}  // namespace lab
