// Binding a path that a killed host may have left, and nobody else's.
#include "refhost/parent/ControlSocket.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "base/UnixAddress.h"

namespace parent {
namespace {

base::UniqueFd newSocket() {
  return base::UniqueFd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
}

/// Whether |path| is a socket at which nobody listens any more.
bool isLeftOver(const std::string& path, const base::UnixAddress& address) {
  struct stat file {};
  if (lstat(path.c_str(), &file) != 0 || !S_ISSOCK(file.st_mode)) return false;
  const base::UniqueFd probe = newSocket();
  return connect(probe.get(), address.get(), address.length) != 0 && errno == ECONNREFUSED;
}

}  // namespace

ControlSocket::ControlSocket(const std::string& path)
    : path_(path), failed_(!path.empty() && !listen()) {
  if (failed_) path_.clear();
}

ControlSocket::~ControlSocket() {
  if (!path_.empty()) unlink(path_.c_str());
}

bool ControlSocket::listen() {
  const auto address = base::UnixAddress::of(path_);
  if (!address) return false;
  if (isLeftOver(path_, *address)) unlink(path_.c_str());
  listening_ = newSocket();
  // The file takes its mode from the socket: nobody can connect in between.
  return fchmod(listening_.get(), S_IRUSR | S_IWUSR) == 0 &&
         bind(listening_.get(), address->get(), address->length) == 0 &&
         ::listen(listening_.get(), SOMAXCONN) == 0;
}

base::UniqueFd ControlSocket::serve() {
  path_.clear();
  return std::move(listening_);
}

}  // namespace parent
