// write(2) after poll(2), as long as the patience lasts.
#include "refhost/zanhost/TimedWrite.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>

namespace zanhost {

bool writeTimed(int fd, std::string_view& text, std::chrono::milliseconds patience,
                std::size_t atOnce) {
  while (!text.empty()) {
    pollfd waiting{fd, POLLOUT, 0};
    const int ready = poll(&waiting, 1, static_cast<int>(patience.count()));
    if (ready < 0 && errno == EINTR) continue;
    if (ready == 0) errno = ETIMEDOUT;
    if (ready <= 0) return false;
    const ssize_t count = write(fd, text.data(), text.substr(0, atOnce).size());
    if (count < 0 && errno != EINTR && errno != EAGAIN) return false;
    if (count > 0) text.remove_prefix(static_cast<std::size_t>(count));
  }
  return true;
}

}  // namespace zanhost
