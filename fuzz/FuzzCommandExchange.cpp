// The asking side of the command channel. Input: a command in one byte, a timeout in four, the
// interface's name with its NUL, and all that the parent ever says.
#include <sys/socket.h>

#include <cstring>

#include "ctmgr/ZanIfConnTracker.h"
#include "fuzz/FuzzHost.h"

namespace {

struct Tracker : ZanIfConnTracker {
  using ZanIfConnTracker::idleTimeOut;
  using ZanIfConnTracker::ifaceName;
  using ZanIfConnTracker::ZanIfConnTracker;
};

std::string bytesOf(std::uint32_t value) {
  return {reinterpret_cast<const char*>(&value), sizeof(value)};
}

/// What there is to be read from |fd|.
std::string received(const base::UniqueFd& fd) {
  char all[8192];
  const ssize_t length = recv(fd.get(), all, sizeof(all), MSG_DONTWAIT);
  return {all, all + std::max<ssize_t>(length, 0)};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace std::string_literals;
  static FuzzHost& host = *new FuzzHost;
  static Tracker& tracker = *new Tracker(host.host.zan, host.utils, host.host.zan.zanRix, "w9");
  if (size < 5 || size > 4096) return 0;
  const std::uint32_t command = data[0];
  std::memcpy(&tracker.idleTimeOut, data + 1, 4);
  std::string said(data + 5, data + size);
  tracker.ifaceName = said.substr(0, said.find('\0'));
  said.erase(0, tracker.ifaceName.size() + 1);

  int ends[2];
  require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0, "no channel");
  const base::UniqueFd own(ends[0]);
  const base::UniqueFd parents(ends[1]);
  send(parents.get(), said.data(), said.size(), 0);
  shutdown(parents.get(), SHUT_WR);
  host.host.zan.commandChannelFd = own.get();
  const int result = tracker.execCommand(static_cast<ZAN_COMMANDS>(command));
  host.host.zan.commandChannelFd = -1;

  // The same on paper. The last piece acknowledges the result.
  std::vector<std::string> pieces = {bytesOf(command), bytesOf(0)};
  if (command >= 8 && command <= 11) {
    pieces.insert(pieces.begin() + 1, {tracker.ifaceName + '\0', bytesOf(tracker.idleTimeOut),
                                       "CT\0"s, "IDLETIMER\0"s});
  }
  std::int32_t answers[6] = {};  // one that is not whole counts as zero
  std::memcpy(answers, said.data(), std::min(said.size() / 4 * 4, sizeof(answers)));
  std::string sent = pieces[0];
  std::size_t i = 0;
  for (; i + 1 < pieces.size() && answers[i] >= 0; ++i) sent += pieces[i + 1];
  require(result == (i + 1 == pieces.size() && answers[i] == 0 ? 0 : -1), "result");
  require(received(parents) == sent, "what is sent");
  require(received(own) == said.substr(std::min(4 * (i + 1), said.size())), "what is left unread");
  return 0;
}
