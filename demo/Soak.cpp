// Both jobs of the system for minutes.
#include "demo/Soak.h"

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "lab/ConntrackTable.h"
#include "lab/Error.h"

namespace demo {
namespace {

using std::to_string;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr std::size_t kShortestPauseMs = 50;
constexpr std::size_t kPauseSpreadMs = 250;
constexpr seconds kRound{10};
constexpr seconds kLongestWarmUp{60};

/// The host's memory takes one step of up to 800 KiB, some time in the first minute, and stays
/// there for minutes; the heap's trimming has no part in it. A leak of 100 bytes a deleted entry
/// comes to more within two minutes. Descriptors and threads are counted while nothing goes on, and
/// must be exactly as many.
constexpr std::size_t kMemoryToleranceKiB = 1024;

std::size_t filesIn(const std::string& folder) {
  const std::filesystem::directory_iterator entries(folder);
  return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

}  // namespace

Soak::Footprint::Footprint(pid_t pid) {
  const std::string folder = "/proc/" + to_string(pid);
  std::ifstream memory(folder + "/smaps_rollup");
  for (std::string word; memory >> word;) {
    if (word == "Private_Dirty:") memory >> dirtyKiB;
  }
  if (dirtyKiB == 0) throw lab::Error("cannot read " + folder + "/smaps_rollup");
  descriptors = filesIn(folder + "/fd");
  threads = filesIn(folder + "/task");
}

std::string Soak::Footprint::text() const {
  return to_string(dirtyKiB) + " KiB, " + to_string(descriptors) + " descriptors, " +
         to_string(threads) + " threads";
}

Soak::Soak(const lab::HostProcess::Options& host, std::uint32_t seed, DemoReport& report,
           const Waiting& waiting)
    : report_(report),
      waiting_(waiting),
      seed_(seed),
      host_(following(host), network_.gateway()),
      kinds_{{
          {"departures", 3, [](Soak& soak) { return soak.guests_.leave(); }},
          {"returns", 12, [](Soak& soak) { return soak.guests_.comeBack(); }},
          {"exchanges", 8, [](Soak& soak) { return soak.guests_.talk(); }},
          {"stragglers", 8, [](Soak& soak) { return soak.guests_.straggle(); }},
          {"upstream address lost", 1, [](Soak& soak) { return soak.loseUpstream(); }},
          {"dormancy", 1, [](Soak& soak) { return soak.switchDormancy(); }},
          {"tethering", 1, [](Soak& soak) { return soak.switchTethering(); }},
          {"mobile link changes", 1, [](Soak& soak) { return soak.changeLink(); }},
      }} {}

void Soak::run(std::chrono::minutes length) {
  report_.say("Seed " + to_string(seed_) + ": " + to_string(SoakGuests::kCount) +
              " hotspot clients with hundreds of connections each, their upstream address and a "
              "mobile link come and go for " +
              to_string(length.count()) + " min. Waits for the last flushes come on top.");
  const Clock::time_point begin = Clock::now();
  playUntil(begin + std::min<milliseconds>(milliseconds(length) / 4, kLongestWarmUp));
  const Footprint before = calmDown("warmed up");
  playUntil(begin + length);
  const Footprint after = calmDown("the last event is over");
  check(before, after);
}

lab::HostProcess::Options Soak::following(lab::HostProcess::Options options) const {
  options.arguments = {"--wwan", link_.name()};
  options.end = lab::HostProcess::Options::End::kInOrder;
  return options;
}

void Soak::playUntil(Clock::time_point end) {
  while (Clock::now() < end) playRound();
}

void Soak::playRound() {
  const Clock::time_point begin = Clock::now();
  const auto pause = [this] { return milliseconds(kShortestPauseMs + draw(kPauseSpreadMs)); };
  for (milliseconds at = pause(); at < kRound; at += pause()) {
    waiting_.until(begin + at);
    playOne();
  }
  const std::size_t entries = lab::readConntrackTable(network_.gateway()).size();
  report_.say("   " + to_string(guests_.presentCount()) + " clients present, " +
              to_string(entries) + " entries in the table, " +
              to_string(host_.status().deletions.deleted) + " deleted so far");
  if (!settle()) throw lab::Error("a worker of the host goes on");
}

void Soak::playOne() {
  std::size_t total = 0;
  for (const Kind& kind : kinds_) total += kind.weight;
  std::size_t drawn = draw(total);
  Kind* kind = kinds_.data();
  for (; drawn >= kind->weight; ++kind) drawn -= kind->weight;
  if (kind->play(*this)) ++kind->played;
}

bool Soak::loseUpstream() {
  host_.command(std::string("upstream-lost ") + lab::HotspotNetwork::kGatewayIpv4);
  // The next answer comes when the scan is over. What it found is lost: the clients start anew.
  static_cast<void>(host_.status());
  guests_.reopen();
  return true;
}

bool Soak::switchDormancy() {
  dormant_ = !dormant_;
  host_.command("dormancy " + link_.name() + (dormant_ ? " dormant" : " active"));
  return true;
}

bool Soak::switchTethering() {
  tethering_ = !tethering_;
  host_.command(tethering_ ? "tethering on" : "tethering off");
  return true;
}

bool Soak::changeLink() {
  linkUp_ = !linkUp_;
  if (linkUp_) {
    link_.connect();
  } else {
    link_.disconnect();
  }
  return true;
}

bool Soak::settle() {
  // A worker that flushes is a thread, which ends with its flush.
  static_cast<void>(host_.status());  // is answered when the workers have been started
  const auto idle = [this] { return Footprint(pid_).threads <= idleThreads_; };
  const bool ended =
      waiting_.until(idle, SoakGuests::kLastFlush + base::kPatience, milliseconds(100)).has_value();
  guests_.noteStale();
  return ended;
}

Soak::Footprint Soak::calmDown(const char* why) {
  report_.say("   " + std::string(why) + ": half of the clients leave, the link goes down");
  guests_.leaveHalf();
  host_.command("tethering off");
  tethering_ = false;
  link_.disconnect();
  linkUp_ = false;
  const bool ended = settle() && waiting_.until([this] {
    return !host_.status().interface(link_.name()).connected;
  });
  const Footprint now(pid_);
  report_.check(ended, "the workers of all flushes have ended",
                to_string(idleThreads_) + " threads, as before them", now.text());
  return now;
}

void Soak::check(const Footprint& before, const Footprint& after) {
  const lab::HostState status = host_.status();
  report_.act("What happened");
  for (const Kind& kind : kinds_) {
    report_.say("   " + std::string(kind.name) + ": " + to_string(kind.played));
  }
  report_.say("   entries flushed: " + to_string(status.deletions.deleted));

  report_.act("What is claimed");
  guests_.check(report_);
  checkCounters(status);
  report_.check(after.dirtyKiB <= before.dirtyKiB + kMemoryToleranceKiB &&
                    after.descriptors == before.descriptors && after.threads == before.threads,
                "the host uses what it did after the warm-up",
                before.text() + ", and up to " + to_string(kMemoryToleranceKiB) + " KiB more",
                before.text() + "; now " + after.text());
  report_.endHost(host_);
  const std::size_t rules = link_.rules() + (link_.remainingSeconds() ? 1 : 0);
  report_.check(rules == 0, "firewall rules and idle timers that are left", "0", to_string(rules));
}

void Soak::checkCounters(const lab::HostState& status) {
  const lab::HostState::Deletions& count = status.deletions;
  const std::size_t answered = count.deleted + count.alreadyGone + count.refused;
  report_.check(count.deleted > 0 && answered == count.requested && count.refused == 0,
                "each request was answered, and none refused", "deleted + already gone = requested",
                count.text());
  report_.check(status.neighbourOverruns == 0, "no neighbour notification was dropped",
                "0 overruns", to_string(status.neighbourOverruns) + " overruns");
}

}  // namespace demo
