#include <fmt/format.h>
#include <sys/resource.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "base/Patience.h"
#include "bench/BenchTable.h"
#include "bench/ChildRun.h"
#include "bench/Figures.h"
#include "bench/PluginHost.h"
#include "bench/Report.h"
#include "bench/Scanner.h"
#include "bench/SilentLog.h"
#include "lab/Error.h"

namespace bench {
namespace {

constexpr std::size_t kEntries = 60000;

/// Clients that leave in one event, and whose the table is.
struct Departure {
  const char* name;
  std::size_t leaving;  ///< how many
  std::size_t first;    ///< the number of the first of them
  std::size_t owners;   ///< clients that own the table, from number 0
  bool knowsIpv6;
  std::optional<Target> target;         ///< of the event, in readings of the table
  std::optional<Target> ofRounds = {};  ///< of all three flushes, in seconds of CPU time
};

constexpr Target kManyClients = atMost(12);
constexpr Target kRounds = atMost(4);
const Departure kDepartures[] = {
    {"200 clients leave", 200, 0, 200, true, kManyClients, kRounds},
    {"200 leave, the table is others'", 200, 20, 20, true, kManyClients, kRounds},
    {"200 leave, no IPv6 address known", 200, 0, 200, false, std::nullopt},
    {"10 of 200 clients leave", 10, 20, 200, true, atMost(2.5)},
};

struct Result {
  double eventSeconds;
  double cpuSeconds;  ///< of all three flushes
  double peakKiB;     ///< over what it was before
};

double cpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  const auto seconds = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
  };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

/// KiB of this process's field |name|, "VmHWM:" say.
double memoryKiB(const std::string& name) {
  std::ifstream status("/proc/self/status");
  for (std::string word; status >> word;) {
    double value = 0;
    if (word == name && status >> value) return value;
  }
  throw lab::Error("/proc/self/status has no " + name);
}

bool isAlone() {
  const std::filesystem::directory_iterator threads("/proc/self/task");
  return std::distance(begin(threads), end(threads)) == 1;
}

/// In a child process: the event, and the clean-ups to their end if |toTheEnd|.
std::vector<double> depart(const Options& options, NeighbourTable& neighbours,
                           const Departure& departure, bool toTheEnd) {
  constexpr std::size_t kLearnedAtOnce = NeighbourTable::kBatch / 2;
  PluginHost host(options.plugin);
  ZanDsmTextList macs;
  for (std::size_t begin = 0; begin < departure.leaving; begin += kLearnedAtOnce) {
    std::vector<Neighbour> known;
    for (std::size_t i = begin; i < std::min(begin + kLearnedAtOnce, departure.leaving); ++i) {
      const Client client = BenchTable::client(departure.first + i);
      macs.push_back(client.mac);
      known.push_back({client.ipv4, client.mac});
      if (departure.knowsIpv6) known.push_back({client.ipv6, client.mac});
    }
    host.learn(neighbours, known);
  }
  std::ofstream("/proc/self/clear_refs") << "5";  // forgets the peak (proc(5))
  const double before = memoryKiB("VmRSS:");
  const double cpuBefore = cpuSeconds();
  const double seconds = host.leave(macs);
  if (toTheEnd && !base::eventually(isAlone)) throw lab::Error("the clean-ups do not end");
  return {seconds, cpuSeconds() - cpuBefore, memoryKiB("VmHWM:") - before};
}

class Departures {
 public:
  Departures(const Options& options, const Departure& departure)
      : options_(options), departure_(departure), table_({kEntries, departure.owners}) {}

  /// Seconds of the event, or of CPU time for all three flushes.
  Result once(bool toTheEnd) {
    const auto results =
        inChild([&] { return depart(options_, neighbours_, departure_, toTheEnd); });
    table_.resize(kEntries);
    return {results.at(0), results.at(1), results.at(2)};
  }

  [[nodiscard]] double reading() const { return scanner_.floor(); }

 private:
  const Options& options_;
  const Departure& departure_;
  BenchTable table_;
  NeighbourTable neighbours_{table_.where()};
  Scanner<> scanner_;
};

void measure(const Options& options, const Departure& departure, Report& report) {
  constexpr Effort kFewRounds{3, 0};
  Departures departures(options, departure);
  double peakKiB = 0;
  const Comparison event = compare(
      kFewRounds,
      [&] {
        const Result result = departures.once(false);
        peakKiB = result.peakKiB;
        return result.eventSeconds;
      },
      [&] { return departures.reading(); });
  report.add({fmt::format("{}: event", departure.name), "read to the end", event.ratio, "x",
              departure.target,
              fmt::format("{:.0f} ms, a reading {:.0f} ms; {:.1f} MiB at the peak",
                          event.subject.median * 1e3, event.peer.median * 1e3, peakKiB / 1024)});
  if (!departure.ofRounds) return;
  const double cpu = departures.once(true).cpuSeconds;
  report.add({fmt::format("{}: CPU time of three flushes", departure.name),
              "",
              {cpu, cpu, cpu},
              "s",
              departure.ofRounds,
              "once"});
}

}  // namespace

void measureDepartures(const Options& options, Report& report) {
  const SilentLog log;
  for (const Departure& departure : kDepartures) measure(options, departure, report);
}

}  // namespace bench
