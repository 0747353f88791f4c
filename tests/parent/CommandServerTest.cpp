// The privileged parent's side of the command channel, whatever may be wrong with a piece.
#include <gmock/gmock.h>
#include <sys/socket.h>

#include <chrono>

#include "base/Patience.h"
#include "base/UniqueFd.h"
#include "refhost/parent/CommandServer.h"

namespace parent {
namespace {

using namespace std::string_literals;
using testing::EndsWith;

std::string number(std::int32_t value) {
  return {reinterpret_cast<const char*>(&value), sizeof(value)};
}

/// An exchange and the ends of its pieces, with a zero before them.
const std::string kRest = "CT\0IDLETIMER\0"s + number(0);
const std::string kExchange = number(8) + "w9\0"s + number(5) + kRest;
constexpr std::size_t kEnds[] = {0, 4, 7, 11, 14, 24};
const std::string kDone = "8 CT_w9, outgoing, 5 s: 0 0 0 0 0 3 ";

/// What comes after the last exchange.
enum class End { kNothing, kLeaves, kKeepsTheServerWaiting };

/// What a server does about each of |exchanges|: what it carries out, whose result is 3, its
/// answers, and whether it takes the asking side for gone.
std::string serve(const std::vector<std::string>& exchanges, End end = End::kNothing) {
  int ends[2];
  socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends);
  const base::UniqueFd near(ends[0]);
  const base::UniqueFd far(ends[1]);
  std::string record;
  CommandServer server(
      near.get(),
      [&](ZAN_COMMANDS command, const IdleTimerRule& rule) {
        record += std::to_string(command) + " " + rule.text() + ": ";
        return 3;
      },
      end == End::kKeepsTheServerWaiting ? std::chrono::milliseconds(100) : base::kPatience);
  for (const std::string& bytes : exchanges) {
    send(far.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (end == End::kLeaves) shutdown(far.get(), SHUT_WR);
    const bool goesOn = server.serveOne();
    std::int32_t answer = 0;
    while (recv(far.get(), &answer, sizeof(answer), MSG_DONTWAIT) == sizeof(answer)) {
      record += std::to_string(answer) + " ";
    }
    if (!goesOn) record += "gone";
  }
  return record;
}

TEST(CommandServer, RefusesWhatIsMalformedAndGoesOn) {
  // What stands in the place of which piece.
  const std::pair<std::size_t, std::vector<std::string>> cases[] = {
      {0, {number(7), number(12)}},
      {1, {"\0"s, "-w\0"s, "w n\0"s, "w/n\0"s, "w23456789abcdefg\0"s}},
      {2, {number(0), number(-1), number(86401)}},
      {3, {"CX\0"s, "C\0"s, "CT_\0"s}},
      {4, {"LED\0"s, "IDLETIMERS\0"s}}};
  for (const auto& [place, pieces] : cases) {
    for (const std::string& piece : pieces) {
      const std::string refused = "0 0 0 0 -1 "s.substr(8 - 2 * place);
      EXPECT_EQ(serve({kExchange.substr(0, kEnds[place]) + piece, kExchange}), refused + kDone)
          << piece;
    }
  }
}

TEST(CommandServer, CarriesOutWhatIsAskedUntilTheOtherSideFails) {
  EXPECT_EQ(
      serve({number(9) + "w23456789abcdef\0"s + number(86400) + kRest,
             number(10) + "w9\0"s + number(0) + kRest, number(11) + "w9\0"s + number(0) + kRest}),
      "9 CT_w23456789abcdef, incoming, 86400 s: 0 0 0 0 0 3 "
      "10 CT_w9, outgoing, 0 s: 0 0 0 0 0 3 11 CT_w9, incoming, 0 s: 0 0 0 0 0 3 ");
  for (std::size_t count = 0; count < 5; ++count) {
    const std::string begun = kExchange.substr(0, kEnds[count]);
    EXPECT_EQ(serve({begun}, End::kLeaves), "0 0 0 0 gone"s.substr(8 - 2 * count));
    EXPECT_THAT(serve({begun}, End::kKeepsTheServerWaiting), EndsWith("gone"));
  }
  EXPECT_EQ(serve({kExchange.substr(0, kEnds[5])}, End::kLeaves), kDone + "gone");
}

}  // namespace
}  // namespace parent
