// The hotspot clients of a soak.
#include "demo/SoakGuests.h"

#include <algorithm>
#include <string>

namespace demo {
namespace {

using std::to_string;
using std::chrono::milliseconds;

constexpr std::size_t kFewestPresent = 3;
constexpr std::size_t kMostAtOnce = 3;
constexpr std::size_t kFewestPerKind = 25;
constexpr std::size_t kPerKindSpread = 50;
constexpr std::size_t kFirstPort = 7000;
constexpr std::size_t kFirstLatePort = 20000;
constexpr std::size_t kLatePorts = 10000;

/// So long before its last flush nobody is sent to any more.
constexpr milliseconds kOnTheWay{2000};

}  // namespace

SoakGuests::SoakGuests(const lab::HotspotNetwork& network, lab::HostProcess& host,
                       std::mt19937& random, const Waiting& waiting)
    : network_(network), host_(host), random_(random), waiting_(waiting) {
  for (std::size_t i = 0; i < kCount; ++i) welcome(i);
}

std::vector<std::size_t> SoakGuests::list(State state) const {
  std::vector<std::size_t> result;
  for (std::size_t i = 0; i < kCount; ++i) {
    if (guests_.at(i).state == state) result.push_back(i);
  }
  return result;
}

/// Its established TCP entries. A look that overlaps deletions may miss some, hence the second.
lab::ConntrackEntries SoakGuests::establishedOf(std::size_t i) const {
  lab::ConntrackEntries entries;
  const auto complete = [&] {
    entries = network_.entriesOf(i);
    std::erase_if(entries, [](const auto& entry) { return entry.state != "ESTABLISHED"; });
    return entries.size() == 2 * guests_.at(i).perKind;
  };
  static_cast<void>(waiting_.until(complete, base::kPatience, milliseconds(50)));
  return entries;
}

void SoakGuests::noteStale() {
  for (const std::size_t i : list(State::kLeaving)) {
    guests_.at(i).state = State::kForgotten;
    ++departures_;
    const lab::ConntrackEntries entries = network_.entriesOf(i);
    stale_.insert(stale_.end(), entries.begin(), entries.end());
  }
}

void SoakGuests::reportToHost() {
  std::string text = "clients";
  for (const std::size_t i : list(State::kPresent)) text += " " + network_.client(i).mac;
  host_.command(text);
}

void SoakGuests::welcome(std::size_t i) {
  Guest& guest = guests_.at(i);
  // A new server knows of no abandoned connection.
  guest.server.reset();
  guest.server.emplace(network_.upstream(), static_cast<std::uint16_t>(kFirstPort + i));
  guest.perKind = kFewestPerKind + draw(kPerKindSpread);
  guest.state = State::kPresent;
  reportToHost();
  open(i);
}

void SoakGuests::open(std::size_t i) {
  Guest& guest = guests_.at(i);
  lab::ClientConnections connections(network_, i, guest.perKind, guest.server->port());
  guest.connections = std::move(connections);
}

bool SoakGuests::talk() {
  const std::vector<std::size_t> present = list(State::kPresent);
  exchange(present[draw(present.size())]);
  return true;
}

void SoakGuests::exchange(std::size_t i) {
  lab::ClientConnections& connections = *guests_.at(i).connections;
  sent_ += connections.count();
  echoed_ += connections.exchange();
}

void SoakGuests::depart(const std::vector<std::size_t>& who) {
  for (const std::size_t i : who) {
    Guest& guest = guests_.at(i);
    // Some say goodbye, with resets; of others nothing is heard any more.
    if (draw(2) == 0) guest.connections.reset();
    network_.detachClient(i);
    if (guest.connections) guest.connections->abandon();
    guest.connections.reset();
    guest.state = State::kLeaving;
    guest.departed = Clock::now();
  }
  reportToHost();
}

bool SoakGuests::leave() {
  std::vector<std::size_t> present = list(State::kPresent);
  if (present.size() <= kFewestPresent) return false;
  std::rotate(present.begin(), present.begin() + static_cast<std::ptrdiff_t>(draw(present.size())),
              present.end());
  present.resize(1 + draw(std::min(kMostAtOnce, present.size() - kFewestPresent)));
  depart(present);
  return true;
}

bool SoakGuests::comeBack() {
  const std::vector<std::size_t> away = list(State::kForgotten);
  if (away.empty()) return false;
  const std::size_t i = away[draw(away.size())];
  network_.attachClient(i);
  welcome(i);
  return true;
}

bool SoakGuests::straggle() {
  const std::vector<std::size_t> away = list(State::kLeaving);
  if (away.empty()) return false;
  const std::size_t i = away[draw(away.size())];
  const Guest& guest = guests_.at(i);
  if (Clock::now() > guest.departed + kLastFlush - kOnTheWay) return false;
  const auto port = static_cast<std::uint16_t>(kFirstLatePort + draw(kLatePorts));
  guest.server->sendDatagram(network_.client(i).ipv6, port, "late");
  return true;
}

void SoakGuests::reopen() {
  for (const std::size_t i : list(State::kPresent)) open(i);
}

void SoakGuests::leaveHalf() {
  std::vector<std::size_t> leaving = list(State::kPresent);
  const auto middle = leaving.begin() + static_cast<std::ptrdiff_t>(leaving.size() / 2);
  stayed_.clear();
  std::for_each(middle, leaving.end(), [this](std::size_t i) {
    const lab::ConntrackEntries entries = establishedOf(i);
    stayed_.insert(stayed_.end(), entries.begin(), entries.end());
  });
  leaving.erase(middle, leaving.end());
  depart(leaving);
}

void SoakGuests::check(DemoReport& report) {
  report.check(stale_.empty(), "no client that left has an entry older than its last flush", "none",
               to_string(stale_.size()) + " after " + to_string(departures_) + " departures" +
                   (stale_.empty() ? "" : ", such as " + stale_.front().text()));
  std::size_t wanted = 0;
  std::size_t kept = 0;
  for (const std::size_t i : list(State::kPresent)) {
    wanted += 2 * guests_.at(i).perKind;
    kept += lab::countSurvivors(establishedOf(i), stayed_);
    exchange(i);
  }
  report.check(kept == wanted, "the TCP entries of the clients that stayed are the same",
               to_string(wanted) + " the same", to_string(kept) + " the same");
  report.check(echoed_ == sent_, "clients that were there got every echo",
               to_string(sent_) + " echoes", to_string(echoed_) + " echoes");
}

}  // namespace demo
