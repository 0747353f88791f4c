// The asking side of the command channel. Input: a command in one byte, a timeout in four, the
// interface's name with its NUL, and all that the parent ever says.
#include <sys/socket.h>

#include <cstring>

#include "ctmgr/ZanIfConnTracker.h"
#include "fuzz/FuzzHost.h"
#include "refhost/UniqueFd.h"

namespace {

struct Tracker : ZanIfConnTracker {
  using ZanIfConnTracker::idleTimeOut;
  using ZanIfConnTracker::ifaceName;
  using ZanIfConnTracker::ZanIfConnTracker;
};

template <typename Integer>
std::string bytesOf(Integer value) {
  return {reinterpret_cast<const char*>(&value), sizeof(value)};
}

/// What there is to be read from |fd|.
std::string received(const UniqueFd& fd) {
  std::string all(8192, '\0');
  const ssize_t length = recv(fd.get(), all.data(), all.size(), MSG_DONTWAIT);
  return all.substr(0, static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace std::string_literals;
  static FuzzHost& host = *new FuzzHost;
  static Tracker& tracker = *new Tracker(host.host.zan, host.utils, host.host.zan.zanRix, "w9");
  if (size < 5 || size > 4096) return 0;
  const std::int32_t command = data[0];
  std::memcpy(&tracker.idleTimeOut, data + 1, 4);
  std::string said(reinterpret_cast<const char*>(data) + 5, size - 5);
  tracker.ifaceName = said.substr(0, said.find('\0'));
  said.erase(0, tracker.ifaceName.size() + 1);

  int ends[2];
  require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0, "no channel");
  const UniqueFd own(ends[0]);
  const UniqueFd parents(ends[1]);
  send(parents.get(), said.data(), said.size(), 0);
  shutdown(parents.get(), SHUT_WR);
  host.host.zan.commandChannelFd = own.get();
  const int result = tracker.execCommand(static_cast<ZAN_COMMANDS>(command));
  host.host.zan.commandChannelFd = -1;

  // The same on paper. An answer that is not whole counts as zero.
  std::vector<std::string> pieces = {bytesOf(command)};
  if (command >= 8 && command <= 11) {
    pieces.insert(pieces.end(), {tracker.ifaceName + '\0', bytesOf(tracker.idleTimeOut), "CT\0"s,
                                 "IDLETIMER\0"s});
  }
  const auto answer = [&] {
    std::int32_t value = 0;
    if (said.size() >= 4) std::memcpy(&value, said.data(), 4);
    said.erase(0, 4);
    return value;
  };
  std::string sent;
  bool agreed = true;
  for (std::size_t i = 0; i < pieces.size() && agreed; ++i) {
    sent += pieces[i];
    agreed = answer() >= 0;
  }
  const bool succeeded = agreed && answer() == 0;
  if (agreed) sent += bytesOf(0);
  require(result == (succeeded ? 0 : -1), "result");
  require(received(parents) == sent, "what is sent");
  require(received(own) == said, "what is left unread");
  return 0;
}
