// The address of a Unix socket.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <cstddef>
#include <string>

namespace base {

class UnixAddress {
 public:
  /// The socket at |path|. If that is too long, or empty, whatever is done with it fails.
  explicit UnixAddress(const std::string& path) {
    address_.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof(address_.sun_path)) return;
    path.copy(address_.sun_path, path.size());
    length_ = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
  }

  [[nodiscard]] socklen_t length() const { return length_; }
  [[nodiscard]] const sockaddr* get() const {
    return static_cast<const sockaddr*>(static_cast<const void*>(&address_));
  }

 private:
  sockaddr_un address_{};
  socklen_t length_ = 0;
};

}  // namespace base
