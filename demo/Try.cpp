// The lab at a prompt.
#include "demo/Try.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <csignal>
#include <cstdio>
#include <sstream>

#include "lab/BuiltFile.h"
#include "lab/ConntrackTable.h"
#include "lab/Error.h"

namespace demo {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr std::size_t kConnectionsPerKind = 6;
constexpr seconds kTalkStep{10};
constexpr std::uint16_t kLatePort = 40000;
/// Who has answered and says nothing more for so long is done.
constexpr milliseconds kQuiet{200};
constexpr seconds kAnswerLimit{5};

constexpr char kSuggestions[] =
    "\n"
    "Clients A and B have 6 connections of each kind to a server behind the gateway,\n"
    "on which they talk every 10 seconds. The gateway has a mobile link, too, and the\n"
    "host runs on it with the plug-in. You may say:\n\n"
    "   table                        how many entries A and B have in the kernel\n"
    "   A leaves                     the host flushes what A had; 5 and 10 s later, too\n"
    "   A late                       a late datagram for A makes an entry again\n"
    "   A entries                    each entry of A\n"
    "   A returns                    and opens new connections\n"
    "   upstream-lost 203.0.113.1    entries behind it go; until the clients talk again\n"
    "   dormancy link dormant        filters go in, an idle timer runs for 5 s\n"
    "   link timer                   what the kernel's timer shows\n"
    "   link sends                   a datagram sets the timer back\n"
    "   tethering on                 filters and timer go\n"
    "   status                       what the host knows\n"
    "   help, quit                   help: this, and all commands of the host\n\n";

}  // namespace

Try::Try(const Waiting& waiting)
    : waiting_(waiting),
      host_({lab::builtFile("refhost/zanhost/zanhost"), "--plugin",
             lab::builtFile("ctmgr/vendor.libzanctmgr.so"), "--wwan", link_.name()},
            &network_.gateway()),
      prompt_([this] { return follow(Clock::time_point::max(), STDIN_FILENO); }) {
  link_.connect();
  for (std::size_t i = 0; i < connections_.size(); ++i) {
    connections_.at(i).emplace(network_, i, kConnectionsPerKind, server_.port());
    const lab::HotspotNetwork::Client& client = network_.client(i);
    verbs_[client.name + " leaves"] = [this, i] { leave(i); };
    verbs_[client.name + " returns"] = [this, i] { comeBack(i); };
    verbs_[client.name + " entries"] = [this, i] {
      for (const auto& entry : network_.entriesOf(i)) report_.say("   " + entry.text());
    };
    verbs_[client.name + " late"] = [&] { server_.sendDatagram(client.ipv6, kLatePort, "late"); };
  }
  verbs_["table"] = [this] {
    report_.table(network_, lab::readConntrackTable(network_.gateway()));
  };
  verbs_["link sends"] = [this] { link_.sendOut(AF_INET); };
  verbs_["link timer"] = [this] {
    const auto left = link_.remainingSeconds();
    report_.say(left ? "   " + std::to_string(*left) + " s left" : "   there is no timer");
  };
}

Try::~Try() {
  host_.signal(SIGTERM);
  host_.waitFor();
}

void Try::run() {
  reportClients();
  report_.show(kSuggestions);
  while (const auto line = prompt_.line()) carryOut(*line);
  if (!hostEnded_) tellHost("quit");
  if (!host_.waitFor() || !host_.status().success()) {
    throw lab::Error("the host has ended with " + host_.status().text());
  }
}

void Try::carryOut(const std::string& line) {
  const auto verb = verbs_.find(line);
  if (verb != verbs_.end()) return verb->second();

  double wait = 0;
  if (std::sscanf(line.c_str(), "wait %6lf", &wait) == 1) {
    const auto time = std::chrono::duration_cast<milliseconds>(std::chrono::duration<double>(wait));
    return static_cast<void>(follow(Clock::now() + time));
  }
  if (line == "help" || line == "?") report_.show(kSuggestions);
  const std::size_t link = line.find(" link");
  if (link != std::string::npos)
    return tellHost(std::string(line).replace(link + 1, 4, link_.name()));
  if (!line.empty()) tellHost(line);
}

void Try::leave(std::size_t client) {
  if (!connections_.at(client)) return report_.say("   it is away");
  network_.detachClient(client);
  connections_.at(client)->abandon();
  connections_.at(client).reset();
  reportClients();
}

void Try::comeBack(std::size_t client) {
  if (connections_.at(client)) return report_.say("   it is here");
  network_.attachClient(client);
  connections_.at(client).emplace(network_, client, kConnectionsPerKind, server_.port());
  reportClients();
}

void Try::reportClients() {
  std::string text = "clients";
  for (std::size_t i = 0; i < connections_.size(); ++i) {
    if (connections_.at(i)) text += " " + network_.client(i).mac;
  }
  tellHost(text);
}

void Try::tellHost(const std::string& command) {
  const Clock::time_point asked = lastHeard_ = Clock::now();
  host_.write(command + "\n");
  while (!hostEnded_ && Clock::now() < asked + kAnswerLimit) {
    follow(Clock::now() + kQuiet);
    if (lastHeard_ > asked && Clock::now() >= lastHeard_ + kQuiet) return;
  }
}

bool Try::follow(Clock::time_point end, int input) {
  while (!hostEnded_ && Clock::now() < end) {
    waiting_.until(Clock::now());  // throws when interrupted
    std::array<pollfd, 3> waits{
        {{host_.errorsFd(), POLLIN, 0}, {host_.outputFd(), POLLIN, 0}, {input, POLLIN, 0}}};
    const auto left = std::min<Clock::duration>(std::min(end, nextTalk_) - Clock::now(), kTalkStep);
    const int ready = ::poll(waits.data(), waits.size(),
                             std::max(0, static_cast<int>(left / milliseconds(1)) + 1));
    if (Clock::now() >= nextTalk_) {
      for (auto& all : connections_) static_cast<void>(all && all->exchange());
      nextTalk_ = Clock::now() + kTalkStep;
    }
    if (ready <= 0) continue;
    if (waits[0].revents != 0) relay(waits[0].fd);
    if (waits[1].revents != 0) relay(waits[1].fd);
    if (waits[2].revents != 0) return true;
  }
  return false;
}

/// What has come from |fd|: the host writes whole lines.
void Try::relay(int fd) {
  std::array<char, 65536> buffer;
  const ssize_t got = ::read(fd, buffer.data(), buffer.size());
  hostEnded_ = got <= 0;
  if (hostEnded_) return;
  lastHeard_ = Clock::now();
  std::istringstream lines(std::string(buffer.data(), static_cast<std::size_t>(got)));
  prompt_.aside([&] {
    for (std::string line; std::getline(lines, line);) {
      // A line of the log begins with time and level, which are left out.
      const bool logged = std::isdigit(static_cast<unsigned char>(line[0])) != 0;
      if (logged) report_.say("   log: " + line.substr(line.find(' ') + 3));
      if (!logged) report_.show("   " + line + "\n");
    }
  });
}

}  // namespace demo
