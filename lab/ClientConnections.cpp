#include "lab/ClientConnections.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "base/Patience.h"
#include "lab/Error.h"
#include "lab/IpAddress.h"

namespace lab {
namespace {

using Clock = std::chrono::steady_clock;

/// Also bounds connect(), which is why it is set before.
void setSendTimeout(int fd) {
  timeval timeout{};
  timeout.tv_sec = static_cast<decltype(timeout.tv_sec)>(base::kPatience.count());
  ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
}

std::string describe(bool stream, const std::string& client, const std::string& server) {
  return std::string(stream ? "TCP" : "UDP") + " connection of client " + client + " to " + server;
}

}  // namespace

ClientConnections::ClientConnections(const HotspotNetwork& network, std::size_t client,
                                     std::size_t perKind, std::uint16_t port) {
  network.clientNamespace(client).run([&] {
    for (const bool stream : {true, false}) {
      for (std::size_t i = 0; i < perKind; ++i) {
        if (!network.client(client).ipv4.empty()) {
          open(network, client, stream, HotspotNetwork::kUpstreamIpv4, port);
        }
        open(network, client, stream, HotspotNetwork::kUpstreamIpv6, port);
      }
    }
  });
  if (exchange() == count()) return;
  for (const Connection& connection : connections_) {
    if (connection.received == connection.expected) continue;
    throw Error("no echo on the first round trip of the " + connection.description);
  }
}

void ClientConnections::open(const HotspotNetwork& network, std::size_t client, bool stream,
                             const std::string& server, std::uint16_t port) {
  const IpAddress address(server);
  const int type = stream ? SOCK_STREAM : SOCK_DGRAM;
  Connection connection;
  connection.stream = stream;
  connection.description = describe(stream, network.client(client).name, server);
  connection.fd.reset(::socket(address.family(), type | SOCK_CLOEXEC, 0));
  if (!connection.fd.valid()) throw systemError("no socket for the " + connection.description);

  const int fd = connection.fd.get();
  setSendTimeout(fd);
  if (stream) {
    // Closing resets: a connection that waits for answers that never come would keep the
    // client's namespace alive for minutes.
    const linger reset{1, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
  }
  sockaddr_storage storage{};
  const socklen_t length = address.toSockaddr(port, storage);
  if (::connect(fd, reinterpret_cast<const sockaddr*>(&storage), length) != 0) {
    throw systemError("cannot open the " + connection.description, errno,
                      "does the gateway forward, is the echo server running?");
  }
  connections_.push_back(std::move(connection));
}

std::size_t ClientConnections::exchange() {
  const Clock::time_point deadline = Clock::now() + base::kPatience;
  sendPayloads();
  std::vector<Connection*> waiting;
  for (Connection& connection : connections_) waiting.push_back(&connection);

  while (!waiting.empty()) {
    std::vector<pollfd> polls;
    polls.reserve(waiting.size());
    for (const Connection* connection : waiting) {
      polls.push_back(pollfd{connection->fd.get(), POLLIN, 0});
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    if (left.count() <= 0) break;
    const int ready = ::poll(polls.data(), polls.size(), static_cast<int>(left.count()));
    if (ready < 0 && errno != EINTR) throw systemError("cannot wait for echoes");
    if (ready <= 0) continue;

    std::vector<Connection*> still;
    for (std::size_t i = 0; i < waiting.size(); ++i) {
      if (polls[i].revents == 0 || receive(*waiting[i])) still.push_back(waiting[i]);
    }
    waiting = std::move(still);
  }
  return static_cast<std::size_t>(
      std::count_if(connections_.begin(), connections_.end(),
                    [](const Connection& c) { return c.received == c.expected; }));
}

void ClientConnections::sendPayloads() {
  ++round_;
  for (std::size_t i = 0; i < connections_.size(); ++i) {
    Connection& connection = connections_[i];
    connection.received.clear();
    connection.expected = "round " + std::to_string(round_) + " connection " + std::to_string(i);
    // A payload that cannot be sent is one that will not come back; the count tells.
    ::send(connection.fd.get(), connection.expected.data(), connection.expected.size(),
           MSG_NOSIGNAL | MSG_DONTWAIT);
  }
}

/// Takes what has arrived. False when the connection needs no more waiting: complete or broken.
bool ClientConnections::receive(Connection& connection) {
  std::array<char, 4096> buffer;
  const ssize_t got = ::recv(connection.fd.get(), buffer.data(), buffer.size(), MSG_DONTWAIT);
  if (got < 0) return errno == EAGAIN || errno == EINTR;
  if (got == 0 && connection.stream) return false;

  const std::string data(buffer.data(), static_cast<std::size_t>(got));
  if (!connection.stream) {
    // A late echo of an earlier round is not an answer to this one.
    connection.received = data;
    return data != connection.expected;
  }
  const int on = 1;
  ::setsockopt(connection.fd.get(), IPPROTO_TCP, TCP_QUICKACK, &on, sizeof on);
  connection.received += data;
  return connection.received.size() < connection.expected.size();
}

void ClientConnections::abandon() {
  for (Connection& connection : connections_) {
    const int on = 1;
    // A socket under repair vanishes without a word to its peer.
    if (connection.stream &&
        ::setsockopt(connection.fd.get(), IPPROTO_TCP, TCP_REPAIR, &on, sizeof on) != 0) {
      throw systemError("cannot abandon the " + connection.description);
    }
  }
  connections_.clear();
}

}  // namespace lab
