// The address of a Unix socket.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstddef>
#include <optional>
#include <string>

namespace base {

struct UnixAddress {
  sockaddr_un address;
  socklen_t length;

  /// The socket at |path|. Nothing, with errno set, when an address has no room for it.
  [[nodiscard]] static std::optional<UnixAddress> of(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof(address.sun_path)) {
      errno = ENAMETOOLONG;
      return std::nullopt;
    }
    path.copy(address.sun_path, path.size());
    return UnixAddress{address,
                       static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size())};
  }

  [[nodiscard]] const sockaddr* get() const {
    return static_cast<const sockaddr*>(static_cast<const void*>(&address));
  }
};

}  // namespace base
