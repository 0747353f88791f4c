#include "demo/SoakGuests.h"

#include <algorithm>
#include <filesystem>
#include <string>

#include "demo/Demo.h"
#include "lab/Error.h"

namespace demo {
namespace {

using std::to_string;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr std::size_t kFewestPresent = 3;
constexpr std::size_t kMostAtOnce = 3;
constexpr std::size_t kFewestPerKind = 25;
constexpr std::size_t kPerKindSpread = 50;
constexpr std::size_t kFirstPort = 7000;
constexpr std::size_t kFirstLatePort = 20000;
constexpr std::size_t kLatePorts = 10000;

/// So long before its last flush nobody is sent to any more.
constexpr milliseconds kOnTheWay{500};
/// A client's last flush forgets it, also when it has come back: here none does so soon.
constexpr milliseconds kShortestAbsence = SoakGuests::kLastFlush + seconds(2);

}  // namespace

SoakGuests::SoakGuests(const lab::HotspotNetwork& network, lab::HostProcess& host,
                       std::mt19937& random)
    : network_(network),
      host_(host),
      random_(random),
      threadFolder_("/proc/" + to_string(host.status().pid) + "/task") {
  for (std::size_t i = 0; i < kCount; ++i) welcome(i);
}

std::vector<std::size_t> SoakGuests::list(bool present) const {
  std::vector<std::size_t> result;
  for (std::size_t i = 0; i < kCount; ++i) {
    if (guests_.at(i).present == present) result.push_back(i);
  }
  return result;
}

/// The TCP and UDP entries of client |i| now.
SoakGuests::Entries SoakGuests::entriesOf(std::size_t i) const {
  return network_.entriesOf(i);
}

/// Its established TCP entries. A look that overlaps deletions may miss some, hence the second.
SoakGuests::Entries SoakGuests::establishedOf(std::size_t i) const {
  Entries entries;
  const auto complete = [&] {
    entries = entriesOf(i);
    std::erase_if(entries, [](const lab::ConntrackEntry& e) { return e.state != "ESTABLISHED"; });
    return entries.size() == 2 * guests_.at(i).perKind;
  };
  static_cast<void>(Demo::poll(complete, base::kPatience, milliseconds(50)));
  return entries;
}

/// Those of the host.
SoakGuests::Threads SoakGuests::threads() const {
  Threads result;
  for (const auto& thread : std::filesystem::directory_iterator(threadFolder_)) {
    result.insert(thread.path().filename());
  }
  return result;
}

void SoakGuests::awaitEnd(const Threads& threads) const {
  const auto haveEnded = [&] {
    const Threads now = this->threads();
    return std::none_of(threads.begin(), threads.end(),
                        [&now](const std::string& thread) { return now.count(thread) != 0; });
  };
  if (!Demo::poll(haveEnded, kLastFlush + base::kPatience))
    throw lab::Error("a worker of the host goes on");
}

/// Returns when the clean-up of client |i| has ended, and after it who deletes what it found.
void SoakGuests::awaitLastFlush(std::size_t i) const {
  awaitEnd(guests_.at(i).workers);
  Threads deleting = threads();
  for (const std::string& thread : idleThreads_) deleting.erase(thread);
  for (const std::size_t other : list(false)) {
    for (const std::string& thread : guests_.at(other).workers) deleting.erase(thread);
  }
  awaitEnd(deleting);
}

/// Keeps what client |i| has in the table after its last flush.
void SoakGuests::noteStale(std::size_t i) {
  if (!guests_.at(i).judged) return;
  const Entries entries = entriesOf(i);
  stale_.insert(stale_.end(), entries.begin(), entries.end());
  ++departures_;
}

void SoakGuests::reportToHost() {
  std::string text = "clients";
  for (const std::size_t i : list(true)) text += " " + network_.client(i).mac;
  host_.command(text);
}

void SoakGuests::welcome(std::size_t i) {
  Guest& guest = guests_.at(i);
  // A new server knows of no abandoned connection.
  guest.server.reset();
  guest.server = std::make_unique<lab::EchoServer>(network_.upstream(),
                                                   static_cast<std::uint16_t>(kFirstPort + i));
  guest.perKind = kFewestPerKind + draw(kPerKindSpread);
  guest.present = true;
  guest.judged = true;
  reportToHost();
  open(i);
}

void SoakGuests::open(std::size_t i) {
  Guest& guest = guests_.at(i);
  guest.connections =
      std::make_unique<lab::ClientConnections>(network_, i, guest.perKind, guest.server->port());
}

bool SoakGuests::talk() {
  const std::vector<std::size_t> present = list(true);
  exchange(present[draw(present.size())]);
  return true;
}

void SoakGuests::exchange(std::size_t i) {
  lab::ClientConnections& connections = *guests_.at(i).connections;
  sent_ += connections.count();
  echoed_ += connections.exchange();
}

void SoakGuests::depart(const std::vector<std::size_t>& who, Milliseconds planned) {
  for (const std::size_t i : who) {
    Guest& guest = guests_.at(i);
    // Some say goodbye, with resets; of others nothing is heard any more.
    if (draw(2) == 0) guest.connections.reset();
    network_.detachClient(i);
    if (guest.connections) guest.connections->abandon();
    guest.connections.reset();
    guest.present = false;
    guest.departurePlanned = planned;
    guest.departed = Clock::now();
  }
  const Threads before = threads();
  reportToHost();
  static_cast<void>(host_.status());  // is answered when the workers have been started
  Threads workers = threads();
  for (const std::string& thread : before) workers.erase(thread);
  for (const std::size_t i : who) guests_.at(i).workers = workers;
}

bool SoakGuests::leave(Milliseconds planned) {
  std::vector<std::size_t> present = list(true);
  if (present.size() <= kFewestPresent) return false;
  std::rotate(present.begin(), present.begin() + static_cast<std::ptrdiff_t>(draw(present.size())),
              present.end());
  present.resize(1 + draw(std::min(kMostAtOnce, present.size() - kFewestPresent)));
  depart(present, planned);
  return true;
}

bool SoakGuests::comeBack(Milliseconds planned) {
  for (const std::size_t i : list(false)) {
    const Guest& guest = guests_.at(i);
    if (planned < guest.departurePlanned + kShortestAbsence) continue;
    awaitLastFlush(i);
    noteStale(i);
    network_.attachClient(i);
    welcome(i);
    return true;
  }
  return false;
}

bool SoakGuests::straggle() {
  const std::vector<std::size_t> away = list(false);
  if (away.empty()) return false;
  const std::size_t i = away[draw(away.size())];
  Guest& guest = guests_.at(i);
  const auto port = static_cast<std::uint16_t>(kFirstLatePort + draw(kLatePorts));
  const Clock::time_point lastFlush = guest.departed + kLastFlush;
  if (Clock::now() > lastFlush - kOnTheWay) return false;
  guest.server->sendDatagram(network_.client(i).ipv6, port, "late");
  const auto arrived = [&] {
    const Entries entries = entriesOf(i);
    return std::any_of(entries.begin(), entries.end(), [port](const lab::ConntrackEntry& entry) {
      return entry.original.destinationPort == port;
    });
  };
  static_cast<void>(Demo::poll([&] { return arrived() || Clock::now() >= lastFlush; }));
  if (Clock::now() >= lastFlush) guest.judged = false;
  return true;
}

void SoakGuests::reopen() {
  for (const std::size_t i : list(true)) open(i);
}

void SoakGuests::leaveHalf(Milliseconds planned) {
  std::vector<std::size_t> leaving = list(true);
  const auto middle = leaving.begin() + static_cast<std::ptrdiff_t>(leaving.size() / 2);
  stayed_.clear();
  std::for_each(middle, leaving.end(), [this](std::size_t i) {
    const Entries entries = establishedOf(i);
    stayed_.insert(stayed_.end(), entries.begin(), entries.end());
  });
  leaving.erase(middle, leaving.end());
  depart(leaving, planned);
}

void SoakGuests::check(DemoReport& report) {
  for (const std::size_t i : list(false)) noteStale(i);
  report.check(stale_.empty(), "no client that left has an entry older than its last flush", "none",
               to_string(stale_.size()) + " after " + to_string(departures_) + " departures" +
                   (stale_.empty() ? "" : ", such as " + stale_.front().text()));
  std::size_t wanted = 0;
  std::size_t kept = 0;
  for (const std::size_t i : list(true)) {
    wanted += 2 * guests_.at(i).perKind;
    for (const lab::ConntrackEntry& entry : establishedOf(i)) {
      kept += static_cast<std::size_t>(
          std::count_if(stayed_.begin(), stayed_.end(),
                        [&entry](const auto& before) { return entry.sameConnection(before); }));
    }
    exchange(i);
  }
  report.check(kept == wanted, "the TCP entries of the clients that stayed are the same",
               to_string(wanted) + " the same", to_string(kept) + " the same");
  report.check(echoed_ == sent_, "clients that were there got every echo",
               to_string(sent_) + " echoes", to_string(echoed_) + " echoes");
}

}  // namespace demo
