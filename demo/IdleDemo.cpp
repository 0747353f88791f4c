// The system's second job: idle mobile links.
#include "demo/IdleDemo.h"

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <fstream>
#include <sstream>

#include "lab/Error.h"

namespace demo {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr std::size_t kRules = 4;  // two directions, two families
constexpr int kFirstTimer = 5;
constexpr int kSecondTimer = 10;
constexpr int kLongestTimer = 80;
/// The timer that traffic sets back has run down to this.
constexpr int kRunDown = 7;

constexpr milliseconds kLookStep{50};
constexpr seconds kProgressStep{8};
constexpr milliseconds kQuiet{1500};
/// The kernel counts a timer's time in ticks, the first of which may be all but over.
constexpr milliseconds kTick{10};

std::string inSeconds(std::chrono::steady_clock::duration time) {
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), "%.2f s", std::chrono::duration<double>(time).count());
  return text.data();
}

std::string timerText(const LinkMoment& moment) {
  return moment.timer ? std::to_string(*moment.timer) + " s left" : "no timer";
}

std::string filterText(const LinkMoment& moment) {
  if (moment.filters) return moment.listenFilters ? "filters and listen filters" : "filters";
  return moment.listenFilters ? "listen filters" : "none";
}

std::uint64_t framesOf(const lab::NetNamespace& where, const std::string& name) {
  return where.run([&name]() -> std::uint64_t {
    std::ifstream file("/proc/thread-self/net/dev");
    for (std::string line; std::getline(file, line);) {
      std::istringstream words(line);
      std::string word;
      words >> word;
      if (word != name + ":") continue;
      // Bytes, packets and six more received, then the same sent.
      std::array<std::uint64_t, 10> numbers{};
      for (std::uint64_t& number : numbers) words >> number;
      return numbers[1] + numbers[9];
    }
    throw lab::Error("the kernel does not list the interface " + name);
  });
}

}  // namespace

void IdleDemo::run() {
  introduce();
  raise();
  fallAsleep();
  idle();
  speak();
  if (timers_ > 1) quieten();
  tether();
  stopHost();
}

void IdleDemo::introduce() const {
  report_.show("\n");
  report_.say(
      "The second job: idle mobile links. While a link is dormant and nobody uses the hotspot, the "
      "modem filters its packets. A timer in the kernel, fed by firewall rules, tells when the "
      "link has carried nothing for 5 seconds; then the modem gets its listen filters, and the "
      "timer starts again with 10, 20, 40 and 80 seconds. Any packet sets it back; tethering on a "
      "dormant link takes rules, timer and filters away. Link and timer are the kernel's, the "
      "modem is the host's stand-in: it keeps what it is told.");
  report_.show("\n   gateway (host + plug-in)  mobile link  198.51.0.1 ---- 198.51.0.2  network\n");
  waiting_.until(Clock::now() + DemoReport::kIntroduction * report_.moment());
}

void IdleDemo::act(const std::string& title) {
  if (host_) watch(report_.moment());
  report_.act(title);
}

void IdleDemo::raise() {
  act("A mobile link connects, and the host follows it");
  hostOptions_.arguments = {"--wwan", link_.name()};
  hostOptions_.end = lab::HostProcess::Options::End::kInOrder;
  host_.emplace(hostOptions_, network_.gateway());
  const LinkMoment before = look();
  report_.check(!before.connected && !before.timer && filterText(before) == "none",
                "before, there is nothing", "not connected, no filters, no timer",
                std::string(before.connected ? "connected" : "not connected") +
                    ", filters: " + filterText(before) + ", " + timerText(before));
  const Clock::time_point begin = Clock::now();
  recording_.observe(begin, "link up", Recording::Mark::kEvent);
  link_.connect();
  const bool connected = await([](const LinkMoment& now) { return now.connected; });
  report_.check(connected, "the host's status: " + link_.name() + " is connected", "connected",
                "after " + inSeconds(Clock::now() - begin));

  // A link that comes up announces its multicast groups.
  const bool quiet =
      await([this](const LinkMoment& now) { return now.when - lastFrame_ >= kQuiet; });
  report_.check(quiet, "its own announcements are over: no frame in " + inSeconds(kQuiet),
                "no frame",
                std::to_string(last().frames) + " frames before, the last after " +
                    inSeconds(lastFrame_ - begin));
}

void IdleDemo::fallAsleep() {
  act("The modem reports the link dormant; tethering is off");
  recording_.observe(Clock::now(), "modem dormant", Recording::Mark::kEvent);
  host_->command("dormancy " + link_.name() + " dormant");
  const bool timed = await([](const LinkMoment& now) { return now.timer.has_value(); });
  const LinkMoment& now = last();
  report_.check(now.dormant && !now.tethering && now.filters, "the modem has its filters",
                "filters", filterText(now));
  report_.check(timed, "the kernel runs the timer CT_" + link_.name(), "a timer", timerText(now));
  checkRules(kRules);
}

void IdleDemo::idle() {
  act("Nothing is sent: the timer runs out");
  expire(kFirstTimer);
  const LinkMoment now = look();
  report_.check(now.filters && now.listenFilters, "the modem has its listen filters too",
                "filters and listen filters", filterText(now));
  checkRules(kRules);
}

void IdleDemo::speak() {
  act("One datagram goes over the link");
  const bool down =
      await([](const LinkMoment& now) { return now.timer && *now.timer <= kRunDown; });
  report_.check(down, "the timer has run down a bit before",
                "at most " + std::to_string(kRunDown) + " s left", timerText(last()));
  const Clock::time_point sent = Clock::now();
  recording_.observe(sent, "one datagram", Recording::Mark::kEvent);
  link_.sendOut(AF_INET);
  int before = kRunDown;
  const bool restarted = await([&before](const LinkMoment& now) {
    const int left = now.timer.value_or(0);
    return std::exchange(before, left) < left && left <= kSecondTimer;
  });
  report_.check(restarted, "the kernel has set it back to " + std::to_string(kSecondTimer) + " s",
                "more than before, and no longer timer",
                timerText(last()) + " after " + inSeconds(last().when - sent));
  if (timers_ == 1) watch(seconds(2));
}

void IdleDemo::quieten() {
  act("Quiet again: each timer runs out in turn");
  report_.say(
      "   The kernel may let a timer run an eighth longer than asked. ARP does not set it back.");
  int timer = kSecondTimer;
  for (int left = timers_ - 1; left > 0 && timer < kLongestTimer; --left, timer *= 2) {
    expire(timer);
    checkRules(kRules);
  }
  if (timers_ < kTimers) return;
  expire(kLongestTimer);
  checkRules(0);
  const bool changed =
      await([](const LinkMoment& now) { return now.timer || !now.filters || !now.listenFilters; },
            kQuiet);
  report_.check(!changed, "the modem keeps its filters, and no other timer comes",
                "filters and listen filters, no timer, for " + inSeconds(kQuiet),
                filterText(last()) + ", " + timerText(last()));
}

void IdleDemo::tether() {
  act("Tethering is switched on");
  recording_.observe(Clock::now(), "tethering on", Recording::Mark::kEvent);
  host_->command("tethering on");
  const LinkMoment now = look();
  report_.check(now.tethering && filterText(now) == "none", "the modem has no filters any more",
                "none", filterText(now));
  report_.check(!now.timer, "the kernel's timer is gone", "no timer", timerText(now));
  checkRules(0);
  watch(seconds(1));
}

void IdleDemo::stopHost() {
  report_.endHost(*host_);
  for (const lab::HostProcess::LogLine& line : host_->log()) {
    if (line.text.find("idleStatus = 1") == std::string::npos) continue;
    recording_.observe(line.received, "idle", Recording::Mark::kIdle);
  }
  const auto timer = link_.remainingSeconds();
  report_.check(!timer, "nothing of it is left in /sys/class/xt_idletimer/timers", "no timer",
                timer ? "CT_" + link_.name() : "no timer");
  checkRules(0);
}

void IdleDemo::expire(int timer) {
  Clock::time_point start = timerStart_;
  const auto ranOut = [&](const LinkMoment& now) {
    if (now.timer && *now.timer <= timer) start = timerStart_;
    return !now.timer || *now.timer > timer;
  };
  // Between two timers there is none for a moment. The host answers again only when it has set
  // the next, so the second look counts.
  const bool over = await([&](const LinkMoment& now) { return ranOut(now) && ranOut(look()); },
                          seconds(timer) + base::kPatience);
  const LinkMoment& now = last();
  const Clock::duration took = now.when - start;
  report_.check(over && took >= seconds(timer) - kTick,
                "the timer of " + std::to_string(timer) + " s has run out",
                inSeconds(seconds(timer)) + " or more after it began",
                over ? inSeconds(took) + " after it began" : timerText(now));
  const bool last = timer == kLongestTimer;
  report_.check(now.timer.has_value() != last,
                last ? "no other timer follows" : "a longer one follows",
                last ? "no timer" : "a timer", timerText(now));
}

bool IdleDemo::await(const Condition& condition, Clock::duration limit) {
  const Clock::time_point begin = Clock::now();
  Clock::time_point nextWord = begin + kProgressStep;
  const auto holds = [&] {
    const LinkMoment now = look();
    if (condition(now)) return true;
    if (now.when >= nextWord) {
      nextWord += kProgressStep;
      report_.say("   ... waiting for " + inSeconds(now.when - begin) + ": " + timerText(now));
    }
    return false;
  };
  return waiting_.until(holds, limit, kLookStep).has_value();
}

void IdleDemo::watch(Clock::duration time) {
  static_cast<void>(await([](const LinkMoment&) { return false; }, time));
}

LinkMoment IdleDemo::look() {
  LinkMoment now;
  const lab::HostState status = host_->status();
  const lab::HostState::Interface interface = status.interface(link_.name());
  now.tethering = status.tethering;
  now.connected = interface.connected;
  now.dormant = interface.dormant;
  now.filters = interface.filters.has_value();
  now.listenFilters = interface.listenFilters.has_value();
  now.timer = link_.remainingSeconds();
  now.frames = framesOf(network_.gateway(), link_.name());
  now.when = Clock::now();

  if (recording_.link().empty() || last().frames != now.frames) lastFrame_ = now.when;
  const auto before = recording_.link().empty() ? std::nullopt : last().timer;
  const bool begins = now.timer && (!before || *now.timer > *before);
  if (begins && !recording_.link().empty()) timerStart_ = last().when;
  recording_.add(now);
  return now;
}

void IdleDemo::checkRules(std::size_t expected) {
  std::size_t rules = 0;
  const auto held = waiting_.until([&] {
    rules = link_.rules();
    return rules == expected;
  });
  report_.check(held.has_value(), "firewall rules that name the link", std::to_string(expected),
                std::to_string(rules));
}

}  // namespace demo
