// The system's first job: what is left of clients and addresses that are gone.
#include "demo/Demo.h"

#include <algorithm>
#include <string>
#include <utility>

namespace demo {
namespace {

using std::to_string;
using std::chrono::milliseconds;

constexpr std::size_t kA = 0;
constexpr std::size_t kB = 1;
constexpr std::size_t kPerKind = 6;
constexpr std::size_t kPerClient = 4 * kPerKind;
constexpr std::uint16_t kStragglerPort = 40000;

/// How the host's log tells of a flush that deleted something.
constexpr char kFlushOver[] = "flush over: ";

constexpr milliseconds kTableStep{20};
constexpr milliseconds kStragglerDelay{2000};
/// From the departure to the first repeated flush, at least.
constexpr milliseconds kFlushPause{5000};

std::string entriesText(std::size_t n) {
  return to_string(n) + (n == 1 ? " entry" : " entries");
}

std::string same(std::size_t n) {
  return to_string(n) + " the same";
}

std::string inMs(std::chrono::steady_clock::duration time) {
  return to_string(std::chrono::duration_cast<milliseconds>(time).count()) + " ms";
}

/// How many there are, and the first few of them.
std::string list(const lab::ConntrackEntries& entries) {
  constexpr std::size_t kShown = 3;
  std::string text = entriesText(entries.size());
  for (std::size_t i = 0; i < std::min(kShown, entries.size()); ++i) {
    text += (i == 0 ? ": " : ", ") + entries[i].text();
  }
  return text + (entries.size() > kShown ? ", ..." : "");
}

}  // namespace

void Demo::run() {
  introduce();
  raise();
  openConnections();
  leave();
  straggle();
  loseUpstream();
  summarise();
  waiting_.until(Clock::now() + report_.moment());
  report_.endHost(*host_);
  noteFlushes();
}

void Demo::introduce() const {
  report_.say(
      "A phone shares its mobile data as a hotspot. The kernel keeps an entry for each connection "
      "of its clients, also after a client has walked away: for TCP up to five days, and late "
      "packets for it go on occupying the mobile link. The connection-tracking manager deletes the "
      "entries of a client that leaves, at once and again after 5 and 10 seconds, and the entries "
      "of an upstream address that is lost.");
  report_.show(
      "\n"
      "   client A           ap0 +----------------+ wan0         server\n"
      "   10.43.0.2         -----| gateway:       |------------- 203.0.113.2\n"
      "   2001:db8:43::2         | host + plug-in | 203.0.113.1  2001:db8:ffff::2\n"
      "   client B           ap1 | NAT for IPv4,  |\n"
      "   10.43.1.2         -----| routed IPv6    |\n"
      "   2001:db8:43:1::2       +----------------+\n"
      "\n");
  report_.say(
      "You will see it work on a live kernel: this hotspot is made of network namespaces, the "
      "connections are real, the tables are the kernel's own.");
  waiting_.until(Clock::now() + DemoReport::kIntroduction * report_.moment());
}

void Demo::act(const std::string& title) {
  if (network_) watch(Clock::now() + report_.moment());
  report_.act(title);
}

void Demo::raise() {
  act("The hotspot is raised and the host loads the plug-in");
  const Clock::time_point begin = Clock::now();
  network_.emplace();
  server_.emplace(network_->upstream());

  // The host starts before any client speaks: it learns addresses only from what it hears.
  host_.emplace(hostOptions_, network_->gateway());
  host_->command("clients " + network_->client(kA).mac + " " + network_->client(kB).mac);
  report_.say("   raised in " + inMs(Clock::now() - begin) + ", the host knows clients A and B");
}

void Demo::openConnections() {
  act("Both clients open " + to_string(kPerKind) + " connections of each kind");
  connectionsA_.emplace(*network_, kA, kPerKind, server_->port());
  connectionsB_.emplace(*network_, kB, kPerKind, server_->port());
  awaitNeighbours();

  const Entries all = lab::readConntrackTable(network_->gateway());
  const std::size_t a = network_->entriesOf(kA, all).size();
  const std::size_t b = network_->entriesOf(kB, all).size();
  report_.table(*network_, all);
  report_.check(a == kPerClient && b == kPerClient, "the kernel tracks every connection",
                entriesText(kPerClient) + " each",
                to_string(a) + " of A and " + to_string(b) + " of B");
}

void Demo::leave() {
  act("Client A walks away: its link goes down, the host is told (event 27)");
  const Entries before = look(kB);
  vanished_ += look(kA).size();
  network_->detachClient(kA);
  connectionsA_->abandon();

  departure_ = Clock::now();
  recording_.observe(departure_, "client A leaves: event 27", Recording::Mark::kEvent);
  host_->command("clients " + network_->client(kB).mac);
  const auto gone = untilNone([this] { return look(kA); });
  awaitAnswers();
  const Entries all = lab::readConntrackTable(network_->gateway());
  const Entries left = network_->entriesOf(kA, all);
  report_.check(gone.has_value() && left.empty(), "every TCP and UDP entry of A is deleted",
                "none left", gone ? "after " + inMs(*gone - departure_) : list(left));
  report_.table(*network_, all);

  const std::size_t kept = lab::countSurvivors(before, look(kB));
  report_.check(kept == kPerClient, "B's entries are the same as before", same(kPerClient),
                same(kept));
  const std::size_t echoed = connectionsB_->exchange();
  report_.check(echoed == kPerClient, "B's connections still carry data",
                to_string(kPerClient) + " echoes", to_string(echoed) + " echoes");
}

void Demo::straggle() {
  act("Two seconds later a late datagram for A arrives from the server");
  const auto ofA = [this] { return look(kA); };
  watch(departure_ + kStragglerDelay);
  report_.check(ofA().empty(), "A's entries are still gone", "none", list(ofA()));
  server_->sendDatagram(network_->client(kA).ipv6, kStragglerPort, "late");
  Entries late;
  const auto came = waiting_.until([&] {
    late = ofA();
    return !late.empty();
  });
  report_.check(came.has_value() && late.size() == 1, "the kernel has made a new entry for it",
                "1 entry", list(late));
  recording_.observe(*came, "late datagram: a new entry for A", Recording::Mark::kEvent);
  vanished_ += late.size();

  const auto gone = untilNone(ofA);
  report_.check(gone && *gone - departure_ >= kFlushPause, "a repeated flush has removed it",
                "gone " + inMs(kFlushPause) + " or more after the departure",
                gone ? "gone " + inMs(*gone - departure_) + " after the departure" : list(ofA()));
}

void Demo::loseUpstream() {
  const std::string lost = lab::HotspotNetwork::kGatewayIpv4;
  act("The upstream address " + lost + " is lost (event 28)");
  const Entries natted = entriesOfB(4);
  const Entries routed = entriesOfB(6);
  const auto behindLost = static_cast<std::size_t>(
      std::count_if(natted.begin(), natted.end(),
                    [&lost](const auto& entry) { return entry.reply.destination == lost; }));
  report_.check(behindLost == kPerClient / 2 && routed.size() == kPerClient / 2,
                "B has entries behind it, and others",
                to_string(kPerClient / 2) + " IPv4 behind it, as many IPv6",
                to_string(behindLost) + " IPv4 behind it, " + to_string(routed.size()) + " IPv6");

  const Clock::time_point begin = Clock::now();
  recording_.observe(begin, lost + " is lost: event 28", Recording::Mark::kEvent);
  host_->command("upstream-lost " + lost);
  const auto gone = untilNone([this] { return entriesOfB(4); });
  report_.check(gone.has_value(), "B's IPv4 entries are deleted", "none left",
                gone ? "after " + inMs(*gone - begin) : list(entriesOfB(4)));
  vanished_ += behindLost;

  awaitAnswers();
  const std::size_t kept = lab::countSurvivors(routed, entriesOfB(6));
  report_.check(kept == routed.size(), "B's IPv6 entries are the same as before",
                same(routed.size()), same(kept));
}

void Demo::summarise() {
  act("The host tells what it has counted");
  const bool agreed = awaitAnswers();
  report_.say("   deletions: " + host_->status().deletions.text());
  report_.check(agreed, "the host counts as many deletions as entries vanished",
                to_string(vanished_), to_string(deletionsCounted()));
}

void Demo::noteFlushes() {
  for (const lab::HostProcess::LogLine& line : host_->log()) {
    if (!line.text.starts_with(kFlushOver)) continue;
    recording_.observe(line.received, line.text, Recording::Mark::kFlush);
  }
}

Demo::Entries Demo::look(std::size_t client) {
  const Entries all = lab::readConntrackTable(network_->gateway());
  recording_.add(TableMoment{Clock::now(), network_->entriesOf(kA, all).size(),
                             network_->entriesOf(kB, all).size()});
  return network_->entriesOf(client, all);
}

void Demo::watch(Clock::time_point end) {
  const auto over = [&] {
    look(kA);
    return Clock::now() >= end;
  };
  static_cast<void>(waiting_.until(over, base::kPatience, kTableStep));
}

Demo::Entries Demo::entriesOfB(int family) {
  Entries entries = look(kB);
  std::erase_if(entries, [family](const auto& entry) { return entry.family != family; });
  return entries;
}

// A reading that overlaps with deletions can miss entries that are still there (see
// readConntrackTable()): only the second look counts.
std::optional<Demo::Clock::time_point> Demo::untilNone(const std::function<Entries()>& look) const {
  return waiting_.until([&look] { return look().empty() && look().empty(); });
}

// The host reads one notification, if there is one, before it answers.
void Demo::awaitNeighbours() {
  std::optional<std::size_t> before;
  static_cast<void>(waiting_.until([&] {
    const std::optional<std::size_t> events = host_->status().neighbourEvents;
    return std::exchange(before, events) == events;
  }));
}

bool Demo::awaitAnswers() {
  return waiting_.until([this] { return deletionsCounted() == vanished_; }).has_value();
}

}  // namespace demo
