// What one hotspot client has open to the upstream server.
#include "lab/ClientConnections.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "base/Deadline.h"
#include "base/Patience.h"
#include "lab/Error.h"
#include "lab/Socket.h"

namespace lab {
namespace {

/// Also bounds connect(), which is why it is set before.
void setSendTimeout(int fd) {
  timeval timeout{};
  timeout.tv_sec = static_cast<decltype(timeout.tv_sec)>(base::kPatience.count());
  ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
}

}  // namespace

ClientConnections::ClientConnections(const HotspotNetwork& network, std::size_t client,
                                     std::size_t perKind, std::uint16_t port) {
  network.clientNamespace(client).run([&] {
    for (const int type : {SOCK_STREAM, SOCK_DGRAM}) {
      for (std::size_t i = 0; i < perKind; ++i) {
        if (!network.client(client).ipv4.empty()) {
          open(network, client, type, HotspotNetwork::kUpstreamIpv4, port);
        }
        open(network, client, type, HotspotNetwork::kUpstreamIpv6, port);
      }
    }
  });
  if (exchange() == count()) return;
  for (const Connection& connection : connections_) {
    if (connection.received == connection.expected) continue;
    throw Error("no echo on the first round trip of the " + connection.description);
  }
}

void ClientConnections::open(const HotspotNetwork& network, std::size_t client, int type,
                             const std::string& server, std::uint16_t port) {
  const SocketAddress address(server, port);
  const bool stream = type == SOCK_STREAM;
  Connection connection;
  connection.stream = stream;
  connection.description = std::string(stream ? "TCP" : "UDP") + " connection of client " +
                           network.client(client).name + " to " + server;
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
  if (::connect(fd, address.get(), address.size()) != 0) {
    throw systemError("cannot open the " + connection.description, errno,
                      "does the gateway forward, is the echo server running?");
  }
  connections_.push_back(std::move(connection));
}

std::size_t ClientConnections::exchange() {
  const base::Deadline deadline(base::kPatience);
  sendPayloads();
  std::vector<pollfd> polls;
  for (const Connection& connection : connections_) {
    polls.push_back(pollfd{connection.fd.get(), POLLIN, 0});
  }
  std::size_t waiting = polls.size();
  while (waiting > 0 && base::awaitReady(polls, deadline)) {
    for (std::size_t i = 0; i < polls.size(); ++i) {
      if (polls[i].revents == 0 || receive(connections_[i])) continue;
      polls[i].fd = -1;  // poll() passes over it
      --waiting;
    }
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
