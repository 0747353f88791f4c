// The parent's side of the command channel. Input: what a child sends, piece by piece, each behind
// a byte with its length; the server reads once after each piece.
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <regex>
#include <string>

#include "base/UniqueFd.h"
#include "fuzz/Require.h"
#include "refhost/parent/CommandServer.h"

namespace {

using namespace std::string_literals;

constexpr std::int32_t kResult = 3;
constexpr std::chrono::milliseconds kLimit{1};

std::string bytesOf(std::uint32_t value) {
  return {reinterpret_cast<const char*>(&value), sizeof(value)};
}

/// What may be carried out: a sound rule that was asked for, word by word, in what was |sent|.
void check(ZAN_COMMANDS command, const parent::IdleTimerRule& rule, const std::string& sent) {
  static const std::regex kName("[A-Za-z0-9][A-Za-z0-9_.-]{0,14}");
  const std::string name(rule.interface.data(), strnlen(rule.interface.data(), 16));
  const bool outgoing = rule.direction == parent::IdleTimerRule::Direction::kOutgoing;
  require(command >= 8 && command <= 11 && outgoing == (command % 2 == 0), "command");
  require(std::regex_match(name, kName), "interface name");
  require(rule.timeoutSeconds <= 86400 && (rule.timeoutSeconds >= 1 || command >= 10), "timeout");
  const std::string asked = bytesOf(static_cast<std::uint32_t>(command)) + name + '\0' +
                            bytesOf(rule.timeoutSeconds) + "CT\0IDLETIMER\0"s;
  require(sent.find(asked) != std::string::npos, "nobody has asked for it");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  int ends[2];
  require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0, "no channel");
  const base::UniqueFd own(ends[0]);
  const base::UniqueFd child(ends[1]);
  std::string sent;
  const auto execute = [&](ZAN_COMMANDS command, const parent::IdleTimerRule& rule) {
    check(command, rule, sent);
    return kResult;
  };
  parent::CommandServer server(own.get(), execute, kLimit);
  std::size_t at = 0;
  for (std::size_t rounds = 0; rounds <= size; ++rounds) {  // each takes a byte, but the last
    if (at < size) {
      const std::size_t length = std::min<std::size_t>(data[at], size - at - 1);
      const std::string piece(data + at + 1, data + at + 1 + length);
      at += 1 + length;
      sent += piece;
      send(child.get(), piece.data(), piece.size(), MSG_NOSIGNAL);
    }
    if (at == size) shutdown(child.get(), SHUT_WR);
    if (!server.serveOne()) return 0;
    for (std::int32_t answer; recv(child.get(), &answer, 4, MSG_DONTWAIT) == 4;) {
      require(answer == 0 || answer == server.kRefused || answer == kResult, "answer");
    }
  }
  require(false, "no end");
  return 0;
}
