// Connections, each with a console and a queue of its own.
#include "refhost/zanhost/ControlServer.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <utility>

#include "base/UniqueFd.h"
#include "refhost/framework/HostLog.h"
#include "refhost/zanhost/CommandConsole.h"

namespace zanhost {

class ControlServer::Connection {
 public:
  Connection(framework::EventLoop& loop, base::UniqueFd socket, const Execute& execute)
      : reading_(std::move(socket)),
        writing_(fcntl(reading_.get(), F_DUPFD_CLOEXEC, 0)),
        answers_(loop, writing_.get(), std::chrono::milliseconds(0)),
        console_(
            loop, [&](const Command& command) { execute(command, answers_); },
            [this](const std::string& error) { answers_.add("refused: " + error + "\n"); }) {
    answers_.whenDone([this] { endIfOver(); });
    console_.whenFinished([this] { endIfOver(); });
    console_.readFrom(reading_.get());
  }

  /// Whoever has gone: what he has sent is carried out.
  [[nodiscard]] bool over() const {
    return console_.finished() && (answers_.letGo() || answers_.empty());
  }

 private:
  /// Called from what would be destroyed with the object: that waits for the next connection.
  void endIfOver() {
    if (over() || answers_.letGo()) shutdown(reading_.get(), SHUT_RDWR);
  }

  base::UniqueFd reading_;
  base::UniqueFd writing_;  ///< an event loop watches a descriptor for one thing
  AnswerQueue answers_;
  CommandConsole console_;
};

ControlServer::ControlServer(framework::EventLoop& loop, int listening, Execute execute)
    : loop_(loop), listening_(listening), execute_(std::move(execute)) {
  if (listening_ != -1) loop_.watch(listening_, connectionReady, this, nullptr, POLLIN);
}

ControlServer::~ControlServer() {
  if (listening_ != -1) loop_.unwatch(listening_);
}

void ControlServer::connectionReady(int fd, void* cbData) {
  auto* self = static_cast<ControlServer*>(cbData);
  self->connections_.remove_if([](const Connection& connection) { return connection.over(); });
  base::UniqueFd socket(accept4(fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  if (!socket.valid()) {
    if (errno == EAGAIN || errno == EINTR || errno == ECONNABORTED) return;
    HOST_LOG(kLogError, "the control socket is not served any more: %s", std::strerror(errno));
    self->loop_.unwatch(fd);
  } else if (self->connections_.size() >= kMostConnections) {
    constexpr std::string_view kTooMany = "refused: too many connections are open\n";
    std::array<char, 4096> unread;  // would make the asker's own reading fail
    recv(socket.get(), unread.data(), unread.size(), 0);
    send(socket.get(), kTooMany.data(), kTooMany.size(), MSG_NOSIGNAL);
  } else {
    self->connections_.emplace_back(self->loop_, std::move(socket), self->execute_);
  }
}

}  // namespace zanhost
