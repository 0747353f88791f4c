// The upstream server.
#pragma once

#include <cstdint>
#include <string>
#include <thread>
#include <unordered_map>

#include "base/UniqueFd.h"

namespace lab {

class NetNamespace;

/// Sends back whatever it receives: TCP and UDP, IPv4 and IPv6, all on one port, from one thread
/// of its own. A stream is dropped when its client leaves more unread than the kernel buffers.
/// Ends, and resets its connections, with its destructor.
class EchoServer {
 public:
  static constexpr std::uint16_t kDefaultPort = 7000;

  /// Serves on all addresses of |where|; ready when the constructor returns. Throws Error.
  explicit EchoServer(const NetNamespace& where, std::uint16_t port = kDefaultPort);
  ~EchoServer();
  EchoServer(const EchoServer&) = delete;
  EchoServer& operator=(const EchoServer&) = delete;

  [[nodiscard]] std::uint16_t port() const { return port_; }

  /// Sends one datagram nobody asked for from the server's port to |address| and |port|. Whether
  /// it arrives is another matter. Any thread. Throws Error.
  void sendDatagram(const std::string& address, std::uint16_t port,
                    const std::string& payload) const;

 private:
  void watch(int fd) const;
  void serve();
  void handle(int fd);
  void acceptAll(int listener);
  void echoDatagrams(int fd) const;
  void echoStream(int fd);

  std::uint16_t port_;
  base::UniqueFd tcp4_;
  base::UniqueFd tcp6_;
  base::UniqueFd udp4_;
  base::UniqueFd udp6_;
  base::UniqueFd stop_;
  base::UniqueFd epoll_;
  std::unordered_map<int, base::UniqueFd> streams_;
  std::thread thread_;
};

}  // namespace lab
