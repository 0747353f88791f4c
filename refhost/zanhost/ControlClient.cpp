// One command over a connection of its own.
#include "refhost/zanhost/ControlClient.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/MemoryFile.h"
#include "base/UniqueFd.h"
#include "base/UnixAddress.h"

namespace zanhost {

int askHost(const std::string& path, const std::vector<std::string>& words) {
  const base::UnixAddress address(path);
  const base::UniqueFd host(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const bool connected = connect(host.get(), address.get(), address.length()) == 0;
  const char* silence = connected ? "it says nothing" : std::strerror(errno);
  const std::string line = fmt::format("{}\n", fmt::join(words, " "));
  // A host that has refused the connection does not read, and what it has said is there all the
  // same.
  send(host.get(), line.data(), line.size(), MSG_NOSIGNAL);
  shutdown(host.get(), SHUT_WR);
  const std::string answer = base::readAll(host.get()).value_or("");
  if (!answer.ends_with('\n')) {
    std::fprintf(stderr, "zanhost: no host answers at %s: %s\n", path.c_str(), silence);
    return 1;
  }
  const bool refused = answer.starts_with("refused: ");
  std::fputs(answer.c_str(), refused ? stderr : stdout);
  return refused ? 2 : 0;
}

}  // namespace zanhost
