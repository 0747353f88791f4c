// Binding a path that a killed host may have left, and nobody else's.
#include "refhost/parent/ControlSocket.h"

#include <sys/stat.h>

#include <cerrno>

#include "base/UnixAddress.h"

namespace parent {
namespace {

base::UniqueFd newSocket() {
  return base::UniqueFd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
}

}  // namespace

base::UniqueFd listenAt(const std::string& path) {
  const base::UnixAddress address(path);
  base::UniqueFd listening = newSocket();
  // The file takes its mode from the socket: nobody can connect in between.
  const auto taken = [&] {
    return fchmod(listening.get(), S_IRUSR | S_IWUSR) == 0 &&
           bind(listening.get(), address.get(), address.length()) == 0;
  };
  struct stat file {};
  bool bound = taken();
  if (!bound && errno == EADDRINUSE && lstat(path.c_str(), &file) == 0 && S_ISSOCK(file.st_mode)) {
    const bool heard = connect(newSocket().get(), address.get(), address.length()) == 0;
    if (!heard && errno == ECONNREFUSED) unlink(path.c_str());
    bound = taken();
  }
  if (!bound || listen(listening.get(), SOMAXCONN) != 0) listening.reset();
  return listening;
}

}  // namespace parent
