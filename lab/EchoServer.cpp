// The upstream server.
#include "lab/EchoServer.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>

#include "lab/Error.h"
#include "lab/NetNamespace.h"
#include "lab/Socket.h"

namespace lab {
namespace {

constexpr std::size_t kChunk = 65536;
constexpr int kBacklog = 1024;

base::UniqueFd openSocket(int family, int type, std::uint16_t port) {
  base::UniqueFd fd = boundSocket(family, type | SOCK_NONBLOCK, port);
  if (type == SOCK_STREAM && ::listen(fd.get(), kBacklog) != 0) {
    throw systemError("the echo server cannot listen");
  }
  return fd;
}

}  // namespace

EchoServer::EchoServer(const NetNamespace& where, std::uint16_t port) : port_(port) {
  where.run([this, port] {
    tcp4_ = openSocket(AF_INET, SOCK_STREAM, port);
    tcp6_ = openSocket(AF_INET6, SOCK_STREAM, port);
    udp4_ = openSocket(AF_INET, SOCK_DGRAM, port);
    udp6_ = openSocket(AF_INET6, SOCK_DGRAM, port);
  });
  stop_.reset(::eventfd(0, EFD_CLOEXEC));
  epoll_.reset(::epoll_create1(EPOLL_CLOEXEC));
  if (!stop_.valid() || !epoll_.valid()) throw systemError("cannot create the server's loop");
  for (const base::UniqueFd* fd : {&tcp4_, &tcp6_, &udp4_, &udp6_, &stop_}) watch(fd->get());
  thread_ = std::thread([this] { serve(); });
}

EchoServer::~EchoServer() {
  ::eventfd_write(stop_.get(), 1);
  thread_.join();
}

void EchoServer::sendDatagram(const std::string& address, std::uint16_t port,
                              const std::string& payload) const {
  const SocketAddress to(address, port);
  lab::sendDatagram(to.family() == AF_INET ? udp4_.get() : udp6_.get(), to, payload);
}

void EchoServer::watch(int fd) const {
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.fd = fd;
  if (::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &event) != 0) {
    throw systemError("the echo server cannot watch a socket");
  }
}

void EchoServer::serve() {
  std::array<epoll_event, 64> events{};
  while (true) {
    const int ready =
        ::epoll_wait(epoll_.get(), events.data(), static_cast<int>(events.size()), -1);
    for (int i = 0; i < ready; ++i) {
      const int fd = events.at(static_cast<std::size_t>(i)).data.fd;
      if (fd == stop_.get()) return;
      handle(fd);
    }
  }
}

void EchoServer::handle(int fd) {
  if (fd == tcp4_.get() || fd == tcp6_.get()) return acceptAll(fd);
  if (fd == udp4_.get() || fd == udp6_.get()) return echoDatagrams(fd);
  echoStream(fd);
}

void EchoServer::acceptAll(int listener) {
  while (true) {
    base::UniqueFd fd(::accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (!fd.valid()) return;
    // Closing resets: a connection that waits for the last answer of a client that is gone
    // would keep the namespace alive for minutes.
    const linger reset{1, 0};
    ::setsockopt(fd.get(), SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    const int key = fd.get();
    watch(key);
    streams_[key] = std::move(fd);
  }
}

void EchoServer::echoDatagrams(int fd) const {
  std::array<char, kChunk> buffer;
  while (true) {
    sockaddr_storage from{};
    socklen_t length = sizeof from;
    sockaddr* const peer = reinterpret_cast<sockaddr*>(&from);
    const ssize_t got = ::recvfrom(fd, buffer.data(), buffer.size(), 0, peer, &length);
    if (got < 0 && errno == EAGAIN) return;
    // An ICMP error about an earlier datagram; the next ones are still there.
    if (got < 0) continue;
    ::sendto(fd, buffer.data(), static_cast<std::size_t>(got), 0, peer, length);
  }
}

void EchoServer::echoStream(int fd) {
  std::array<char, kChunk> buffer;
  const ssize_t got = ::read(fd, buffer.data(), buffer.size());
  if (got < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (got > 0 && ::send(fd, buffer.data(), static_cast<std::size_t>(got), MSG_NOSIGNAL) == got) {
    return;
  }
  // A child that has been forked but has not begun its program yet still holds the socket: closed
  // alone, it would go on to be reported.
  ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, fd, nullptr);
  streams_.erase(fd);
}

}  // namespace lab
