// One datagram, as sd_notify(3) describes it.
#include "refhost/zanhost/ServiceManager.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "base/UniqueFd.h"
#include "base/UnixAddress.h"
#include "refhost/framework/HostLog.h"

namespace zanhost {

void tellServiceManager(std::string_view state) {
  const char* path = std::getenv("NOTIFY_SOCKET");
  if (path == nullptr) return;
  auto to = base::UnixAddress::of(path);
  // '@' stands for the NUL of an address outside of the file system (unix(7)).
  if (to && *path == '@') to->address.sun_path[0] = '\0';
  const base::UniqueFd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (to &&
      sendto(socket.get(), state.data(), state.size(), MSG_NOSIGNAL, to->get(), to->length) >= 0) {
    return;
  }
  HOST_LOG(kLogWarning, "cannot tell the service manager at %s: %s", path, std::strerror(errno));
}

}  // namespace zanhost
