// The socket at which a running host takes commands.
#pragma once

#include <string>

#include "base/UniqueFd.h"

namespace parent {

/// A listening Unix socket that root alone may connect to (mode 0600). Its path goes with the
/// object; one that a killed host has left is replaced.
class ControlSocket {
 public:
  /// Listens at |path|; an empty one makes none. Without it, failed() is true and errno says why:
  /// EADDRINUSE for a host that listens there, and for a file that is no socket.
  explicit ControlSocket(const std::string& path);
  ~ControlSocket();
  ControlSocket(const ControlSocket&) = delete;
  ControlSocket& operator=(const ControlSocket&) = delete;

  [[nodiscard]] bool failed() const { return failed_; }

  /// In the process that serves it: the descriptor, -1 when there is none. The path is left alone.
  [[nodiscard]] base::UniqueFd serve();

  /// In the process that removes the path in the end: lets go of the descriptor, so that nobody
  /// can connect when the serving process has ended.
  void leaveServing() { listening_.reset(); }

 private:
  [[nodiscard]] bool listen();

  std::string path_;  ///< empty when there is nothing to remove
  base::UniqueFd listening_;
  bool failed_;
};

}  // namespace parent
