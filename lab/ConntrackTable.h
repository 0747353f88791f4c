// The kernel's connection-tracking table, as the lab reads and fills it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace lab {

class NetNamespace;

/// One direction of a tracked connection, as its packets look on their way in.
struct ConntrackTuple {
  /// In the spelling of canonicalIp().
  std::string source;
  std::string destination;
  /// Host order; 0 for protocols without ports.
  std::uint16_t sourcePort = 0;
  std::uint16_t destinationPort = 0;

  bool operator==(const ConntrackTuple&) const = default;
};

/// One line of /proc/net/nf_conntrack.
struct ConntrackEntry {
  /// 4 or 6.
  int family = 0;
  /// As the kernel names it: "tcp", "udp", "icmp", ..., "unknown".
  std::string protocol;
  /// "ESTABLISHED", ...; empty for protocols without states.
  std::string state;
  ConntrackTuple original;
  ConntrackTuple reply;
  /// As the kernel printed it.
  std::string line;

  /// Whether |address| (canonical spelling) is the source of either direction: for a hotspot
  /// client that is an entry of a connection of its own or of one made to it.
  [[nodiscard]] bool concerns(const std::string& address) const;
  [[nodiscard]] bool isTcpOrUdp() const { return protocol == "tcp" || protocol == "udp"; }
  /// Same connection, whatever its age and state.
  [[nodiscard]] bool sameConnection(const ConntrackEntry& other) const;
  /// "IPv4 udp 10.43.0.2:4711 -> 203.0.113.2:7000".
  [[nodiscard]] std::string text() const;
};

using ConntrackEntries = std::vector<ConntrackEntry>;

/// The table of |where|, read to its end now, and not as the plug-in reads it. Entries that come or
/// go meanwhile may be seen or not. When entries go meanwhile, kernels before 6.16, which count
/// their way through the table from page to page, can also skip as many that stay: for a claim that
/// something is gone, look twice. Throws Error, also for a line that makes no sense.
[[nodiscard]] ConntrackEntries readConntrackTable(const NetNamespace& where);

/// How many of |before| are still among |now|.
[[nodiscard]] std::size_t countSurvivors(const ConntrackEntries& before,
                                         const ConntrackEntries& now);

/// Puts made-up entries into the table of |where|, as if their connections had been seen. |lines|
/// are what conntrack(8) takes behind its name: "-I -p udp ...". Throws Error when one is refused
/// (an equal one exists, say); others may be in the table then.
void insertConntrackEntries(const NetNamespace& where, const std::string& lines);

/// Empties the table of |where|. Throws Error.
void clearConntrackTable(const NetNamespace& where);

}  // namespace lab
