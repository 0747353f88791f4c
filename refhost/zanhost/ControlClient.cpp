// One command over a connection of its own.
#include "refhost/zanhost/ControlClient.h"

#include <fmt/format.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>

#include "base/MemoryFile.h"
#include "base/UniqueFd.h"
#include "base/UnixAddress.h"

namespace zanhost {
namespace {

constexpr int kDone = 0;
constexpr int kNoHost = 1;
constexpr int kRefused = 2;

/// All that the host at |path| says to |line|; nothing, with errno set, when none can be asked.
std::optional<std::string> askAt(const std::string& path, const std::string& line) {
  const auto address = base::UnixAddress::of(path);
  if (!address) return std::nullopt;
  const base::UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (connect(socket.get(), address->get(), address->length) != 0) return std::nullopt;
  // A host that refuses the connection may not read; what it has said is there all the same.
  send(socket.get(), line.data(), line.size(), MSG_NOSIGNAL);
  shutdown(socket.get(), SHUT_WR);
  return base::readAll(socket.get());
}

}  // namespace

int askHost(const std::string& path, const std::vector<std::string>& words) {
  const auto answer = askAt(path, fmt::format("{}\n", fmt::join(words, " ")));
  if (!answer || answer->empty()) {
    const char* reason = answer ? "it says nothing" : std::strerror(errno);
    std::fprintf(stderr, "zanhost: no host answers at %s: %s\n", path.c_str(), reason);
    return kNoHost;
  }
  const bool refused = answer->starts_with("refused: ");
  std::fputs(answer->c_str(), refused ? stderr : stdout);
  return refused ? kRefused : kDone;
}

}  // namespace zanhost
