// Commands and answers over a Unix socket.
#pragma once

#include <cstddef>
#include <functional>
#include <list>

#include "refhost/framework/EventLoop.h"
#include "refhost/zanhost/AnswerQueue.h"
#include "refhost/zanhost/Command.h"

namespace zanhost {

/// Serves whoever connects as standard input is served, each on its own: its commands in order,
/// their answers to itself, a wrong one with "refused: " and the reason. A connection ends when its
/// sender has ended it, all of it has been carried out, and the answers have been taken; one who
/// leaves too many unread loses it at once.
///
/// Thread: event thread, which no connection can block.
class ControlServer {
 public:
  /// Carries out a command and adds its answer to the queue.
  using Execute = std::function<void(const Command&, AnswerQueue&)>;

  /// Who comes beyond that is refused.
  static constexpr std::size_t kMostConnections = 16;

  /// |listening| stays the caller's, -1 makes it serve nobody; |loop| must outlive the object.
  ControlServer(framework::EventLoop& loop, int listening, Execute execute);
  ~ControlServer();
  ControlServer(const ControlServer&) = delete;
  ControlServer& operator=(const ControlServer&) = delete;

 private:
  class Connection;

  static void connectionReady(int fd, void* cbData);

  framework::EventLoop& loop_;
  int listening_;
  Execute execute_;
  std::list<Connection> connections_;
};

}  // namespace zanhost
