// What one hotspot client has open to the upstream server.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "base/UniqueFd.h"
#include "lab/HotspotNetwork.h"

namespace lab {

/// What one hotspot client has open to the upstream server: the same number of connections of
/// each of four kinds, TCP and UDP over IPv4 and IPv6 (an IPv6-only client: two kinds).
///
/// Closing, in the destructor too, resets the TCP connections and sends nothing for UDP. Not
/// thread-safe; any one thread.
class ClientConnections {
 public:
  /// Opens |perKind| connections of each kind from client |client| of |network| to an EchoServer
  /// on |port| and makes one round trip on each. Throws Error if one does not connect or echo.
  ClientConnections(const HotspotNetwork& network, std::size_t client, std::size_t perKind,
                    std::uint16_t port);

  [[nodiscard]] std::size_t count() const { return connections_.size(); }

  /// Sends a payload never sent before on every connection; returns how many of them brought
  /// exactly that payload back. Comes back as soon as all have. Echoes are acknowledged at once:
  /// the server has no reason to send anything again if the client leaves after a complete
  /// exchange, which would bring deleted TCP entries back to life.
  [[nodiscard]] std::size_t exchange();

  /// Closes everything without a packet, as a client does whose battery is empty. Needs the
  /// capability CAP_NET_ADMIN, as the lab does anyway. Throws Error.
  void abandon();

 private:
  struct Connection {
    base::UniqueFd fd;
    bool stream = false;
    std::string description;
    std::string expected;
    std::string received;
  };

  void open(const HotspotNetwork& network, std::size_t client, int type, const std::string& server,
            std::uint16_t port);
  void sendPayloads();
  static bool receive(Connection& connection);

  std::vector<Connection> connections_;
  std::uint64_t round_ = 0;
};

}  // namespace lab
