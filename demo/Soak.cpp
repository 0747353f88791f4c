#include "demo/Soak.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>

#include "demo/Demo.h"
#include "demo/SoakGuests.h"
#include "lab/ConntrackTable.h"
#include "lab/Error.h"
#include "lab/HotspotNetwork.h"
#include "lab/MobileLink.h"

namespace demo {
namespace {

using Clock = std::chrono::steady_clock;
using std::to_string;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr std::size_t kShortestPauseMs = 100;
constexpr std::size_t kPauseSpreadMs = 400;
constexpr seconds kLongestWarmUp{60};
constexpr seconds kProgressStep{15};

/// A heap that is used differently at the end, by fractions of its pages. A leak of 100 bytes a
/// deleted entry comes to more within two minutes. Descriptors and threads are counted while
/// nothing goes on, and must be exactly as many.
constexpr std::size_t kMemoryToleranceKiB = 512;

std::size_t filesIn(const std::string& folder) {
  const std::filesystem::directory_iterator entries(folder);
  return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

/// What a process uses.
struct Footprint {
  explicit Footprint(pid_t pid) {
    const std::string folder = "/proc/" + to_string(pid);
    std::ifstream memory(folder + "/smaps_rollup");
    for (std::string word; memory >> word;) {
      if (word == "Private_Dirty:") memory >> dirtyKiB;
    }
    if (dirtyKiB == 0) throw lab::Error("cannot read " + folder + "/smaps_rollup");
    descriptors = filesIn(folder + "/fd");
    threads = filesIn(folder + "/task");
  }
  [[nodiscard]] std::string text() const {
    return to_string(dirtyKiB) + " KiB, " + to_string(descriptors) + " descriptors, " +
           to_string(threads) + " threads";
  }

  std::size_t dirtyKiB = 0;
  std::size_t descriptors = 0;
  std::size_t threads = 0;
};

class Run {
 public:
  Run(const Soak& soak, DemoReport& report) : soak_(soak), report_(report) {}
  ~Run() { Demo::endHost(&host_); }

  void playUntil(milliseconds end);
  /// Half of the clients leave, the link goes down; returns when the last flush is over.
  Footprint calmDown(const char* why);
  void check(const Footprint& before, const Footprint& after);

 private:
  struct Kind {
    const char* name;
    unsigned weight;
    bool (*play)(Run& run);
    std::size_t played = 0;
  };

  std::size_t draw(std::size_t below) { return random_() % below; }
  lab::HostProcess::Options hostOptions();
  bool keepLine(const std::string& line);
  void playOne();
  void tellProgress();
  bool linkIsConnected();
  bool command(const std::string& text);
  bool loseUpstream();
  bool changeLink();
  bool switchDormancy();
  bool switchTethering();

  void checkCounters(const lab::HostState& status);
  void checkLog(std::size_t requests);

  const Soak& soak_;
  DemoReport& report_;
  std::mt19937 random_{soak_.seed};
  std::atomic<std::size_t> requestLines_{0};
  std::atomic<std::size_t> idleReports_{0};

  // Torn down in reverse: the clients' connections first, the namespaces last.
  lab::HotspotNetwork network_{
      lab::HotspotNetwork::Options{.clients = SoakGuests::kCount, .ipv6Only = {}}};
  lab::MobileLink link_{network_.gateway(), 0};
  lab::HostProcess host_{hostOptions(), network_.gateway()};
  const pid_t pid_ = host_.status().pid;
  const std::size_t idleThreads_ = Footprint(pid_).threads;
  SoakGuests guests_{network_, host_, random_};

  milliseconds planned_{0};  ///< how much of the run is over
  Clock::time_point begin_ = Clock::now();
  Clock::time_point nextProgress_ = begin_ + kProgressStep;
  bool linkUp_ = false;
  bool linkHasIpv4_ = false;
  bool dormant_ = false;
  bool tethering_ = false;

  std::array<Kind, 10> kinds_{{
      {"departures", 3, [](Run& run) { return run.guests_.leave(run.planned_); }},
      {"returns", 12, [](Run& run) { return run.guests_.comeBack(run.planned_); }},
      {"exchanges", 8, [](Run& run) { return run.guests_.talk(); }},
      {"stragglers", 8, [](Run& run) { return run.guests_.straggle(); }},
      {"upstream address lost", 1, [](Run& run) { return run.loseUpstream(); }},
      {"other address lost", 1, [](Run& run) { return run.command("upstream-lost 192.0.2.1"); }},
      {"dormancy", 1, [](Run& run) { return run.switchDormancy(); }},
      {"tethering", 1, [](Run& run) { return run.switchTethering(); }},
      {"filtering ended", 1,
       [](Run& run) { return run.command("filtering-ended " + run.link_.name()); }},
      {"mobile link changes", 1, [](Run& run) { return run.changeLink(); }},
  }};
};

lab::HostProcess::Options Run::hostOptions() {
  lab::HostProcess::Options options = soak_.host;
  options.logLevel = 0;
  options.keepLine = [this](const std::string& line) { return keepLine(line); };
  options.arguments = {"--wwan", link_.name()};
  return options;
}

/// At level 0 the host says more than anybody could keep: those lines are counted.
bool Run::keepLine(const std::string& line) {
  const auto has = [&line](const char* text) { return line.find(text) != std::string::npos; };
  if (!has("\"level\":0,")) return true;
  if (has("\"text\":\"DeleteV4Entry ") || has("\"text\":\"DeleteV6Entry ")) ++requestLines_;
  if (has("idleTimerExpHdlr idleStatus = 1")) ++idleReports_;
  return false;
}

void Run::playUntil(milliseconds end) {
  const Clock::time_point begin = Clock::now() - planned_;
  while (true) {
    planned_ += milliseconds(kShortestPauseMs + draw(kPauseSpreadMs));
    if (planned_ >= end) break;
    Demo::pauseUntil(begin + planned_);
    playOne();
    tellProgress();
  }
  planned_ = end;
}

void Run::playOne() {
  std::size_t total = 0;
  for (const Kind& kind : kinds_) total += kind.weight;
  std::size_t drawn = draw(total);
  Kind* kind = kinds_.data();
  for (; drawn >= kind->weight; ++kind) drawn -= kind->weight;
  if (kind->play(*this)) ++kind->played;
}

void Run::tellProgress() {
  if (Clock::now() < nextProgress_) return;
  nextProgress_ += kProgressStep;
  std::size_t events = 0;
  for (const Kind& kind : kinds_) events += kind.played;
  report_.say("   " + to_string((Clock::now() - begin_) / seconds(1)) + " s: " + to_string(events) +
              " events, " + to_string(guests_.presentCount()) + " clients present, " +
              to_string(lab::readConntrackTable(network_.gateway()).size()) +
              " entries in the table, " + to_string(host_.status().deletions.deleted) +
              " deleted so far");
}

Footprint Run::calmDown(const char* why) {
  report_.say("   " + std::string(why) + ": half of the clients leave, the link goes down");
  guests_.leaveHalf(planned_);
  tethering_ = linkUp_ = false;
  command("tethering off");
  link_.disconnect();
  // A worker that flushes is a thread, which ends with its flush.
  const auto idle = [&] {
    tellProgress();
    return !linkIsConnected() && Footprint(pid_).threads <= idleThreads_;
  };
  const bool ended =
      Demo::poll(idle, SoakGuests::kLastFlush + base::kPatience, milliseconds(100)).has_value();
  const Footprint now(pid_);
  report_.check(ended, "the workers of all flushes have ended",
                to_string(idleThreads_) + " threads, as before them", now.text());
  return now;
}

bool Run::linkIsConnected() {
  return host_.status().interface(link_.name()).connected;
}

bool Run::command(const std::string& text) {
  host_.command(text);
  return true;
}

bool Run::loseUpstream() {
  command(std::string("upstream-lost ") + lab::HotspotNetwork::kGatewayIpv4);
  // The next answer comes when the scan is over. What it found is lost: the clients start anew.
  static_cast<void>(host_.status());
  guests_.reopen();
  return true;
}

bool Run::switchDormancy() {
  dormant_ = !dormant_;
  return command("dormancy " + link_.name() + (dormant_ ? " dormant" : " active"));
}

bool Run::switchTethering() {
  tethering_ = !tethering_;
  return command(tethering_ ? "tethering on" : "tethering off");
}

/// The link comes up, loses its IPv4 address or not, goes down.
bool Run::changeLink() {
  if (!linkUp_) {
    link_.connect();
    linkUp_ = linkHasIpv4_ = true;
  } else if (linkHasIpv4_ && draw(2) == 0) {
    link_.loseIpv4();
    linkHasIpv4_ = false;
  } else {
    link_.disconnect();
    linkUp_ = false;
  }
  return true;
}

void Run::check(const Footprint& before, const Footprint& after) {
  const lab::HostState status = host_.status();
  report_.act("What happened");
  for (const Kind& kind : kinds_) {
    report_.say("   " + std::string(kind.name) + ": " + to_string(kind.played));
  }
  report_.say("   reports of an idle link: " + to_string(idleReports_));
  report_.say("   entries flushed: " + to_string(status.deletions.deleted));

  report_.act("What is claimed");
  guests_.check(report_);
  checkCounters(status);
  report_.check(after.dirtyKiB <= before.dirtyKiB + kMemoryToleranceKiB &&
                    after.descriptors == before.descriptors && after.threads == before.threads,
                "the host uses what it did after the warm-up",
                before.text() + ", and up to " + to_string(kMemoryToleranceKiB) + " KiB more",
                before.text() + "; now " + after.text());
  checkLog(status.deletions.requested);
}

void Run::checkCounters(const lab::HostState& status) {
  const lab::HostState::Deletions& count = status.deletions;
  const std::size_t answered = count.deleted + count.alreadyGone + count.refused;
  report_.check(count.deleted > 0 && answered == count.requested && count.refused == 0,
                "each request was answered, and none refused", "deleted + already gone = requested",
                count.text());
  report_.check(status.neighbourOverruns == 0, "no neighbour notification was dropped",
                "0 overruns", to_string(status.neighbourOverruns) + " overruns");
}

/// The log is complete when the host has ended.
void Run::checkLog(std::size_t requests) {
  Demo::stopHost(host_, report_);
  std::size_t dropped = 0;
  for (const lab::HostProcess::LogLine& line : host_.log()) {
    unsigned long lines = 0;
    if (std::sscanf(line.text.c_str(), "log: %lu lines dropped", &lines) == 1) dropped += lines;
  }
  report_.check(requestLines_ <= requests && requests <= requestLines_ + dropped,
                "the log has a line for each request", to_string(requests),
                to_string(requestLines_) + ", and " + to_string(dropped) +
                    " lines of any kind dropped for a full queue");
  const std::size_t rules = link_.rules() + (link_.remainingSeconds() ? 1 : 0);
  report_.check(rules == 0, "firewall rules and idle timers that are left", "0", to_string(rules));
}

}  // namespace

void Soak::run(DemoReport& report) const {
  report.say("Seed " + to_string(seed) + ": " + to_string(SoakGuests::kCount) +
             " hotspot clients with hundreds of connections each, their upstream address and a\n"
             "mobile link come and go for " +
             to_string(length.count()) + " min. Two waits for the last flush come on top.");
  Run run(*this, report);
  run.playUntil(std::min<milliseconds>(milliseconds(length) / 4, kLongestWarmUp));
  const Footprint before = run.calmDown("warmed up");
  run.playUntil(length);
  const Footprint after = run.calmDown("the last event is over");
  run.check(before, after);
}

}  // namespace demo
