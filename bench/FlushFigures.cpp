// What it costs when clients leave: one beside conntrack(8), many beside a reading of the table.
#include <fmt/format.h>

#include <chrono>
#include <cstdint>
#include <ctime>
#include <filesystem>
#include <iterator>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "base/Patience.h"
#include "bench/BenchTable.h"
#include "bench/ChildRun.h"
#include "bench/Figures.h"
#include "bench/Report.h"
#include "bench/Scanner.h"
#include "host/Zan.h"
#include "lab/Error.h"
#include "lab/Process.h"
#include "refhost/framework/HostSides.h"
#include "refhost/framework/NetlinkCounters.h"
#include "refhost/zanhost/Plugin.h"

namespace bench {
namespace {

constexpr std::size_t kEntries = 60000;

/// Without link-local addresses, for which the kernel would make neighbours of its own.
constexpr char kMakeInterface[] =
    "link add bench0 type veth peer name bench1\n"
    "link set bench0 addrgenmode none up\n";

/// Fine beside the time of a flush, and rare beside its processor time.
constexpr std::chrono::microseconds kLook{100};

/// Processor time of this process.
double cpuSeconds() {
  return static_cast<double>(std::clock()) / CLOCKS_PER_SEC;
}

bool isAlone() {
  const std::filesystem::directory_iterator threads("/proc/self/task");
  return std::distance(begin(threads), end(threads)) == 1;
}

/// Has the plug-in handle notifications until it has been told of |neighbours|.
void awaitNeighbours(Zan& host, std::uint64_t neighbours) {
  const auto& counters = framework::notificationCounters();
  const std::uint64_t before = counters.delivered;
  const bool toldOfAll = base::eventually([&] {
    HostSides::loopOf(host.zanCom).turn(0);
    return counters.delivered - before >= neighbours;
  });
  if (!toldOfAll) throw lab::Error("the plug-in was not told of all neighbours");
}

/// Clients that leave in one event, and come back with their entries.
class Leavers {
 public:
  struct Range {
    std::size_t first;  ///< client number
    std::size_t count;
  };
  enum class Until { kDeleted, kCleanedUp };

  struct Seconds {
    double blocked;  ///< the event: how long its thread stood still
    double deleted;  ///< from its start to the last acknowledged deletion
    double cpu;      ///< processor time of all that, and of the clean-ups if they are waited for
  };

  Leavers(const Options& options, const TableShape& shape, const Range& range)
      : options_(options), range_(range), table_(shape) {
    std::string commands = kMakeInterface;
    for (std::size_t i = 0; i < range_.count; ++i) {
      const Client client = BenchTable::client(range_.first + i);
      macs_.push_back(client.mac);
      entries_ += table_.entriesOf(range_.first + i);
      for (const std::string& address : {client.ipv4, client.ipv6}) {
        commands +=
            fmt::format("neigh add {} lladdr {} dev bench0 nud permanent\n", address, client.mac);
      }
    }
    lab::Process::runIpBatch(table_.where(), commands);
  }

  /// In a child process: it ends with the threads that a flush leaves behind, or when it has waited
  /// for deletions in vain. Throws lab::Error unless exactly their entries are deleted.
  Seconds leave(Until until) {
    const auto results = inChild([&]() -> std::vector<double> {
      const Seconds seconds = leaveHere(until);
      return {seconds.blocked, seconds.deleted, seconds.cpu};
    });
    comeBack();
    return {results.at(0), results.at(1), results.at(2)};
  }

  /// Seconds of a run of conntrack(8) that deletes the IPv4 entries of the first of them.
  double deleteByConntrack() {
    base::ProgramRun run;
    const std::string address = BenchTable::client(range_.first).ipv4;
    const double seconds = secondsOf([&] {
      run = lab::Process::run({"conntrack", "-D", "-s", address}, &table_.where());
    });
    comeBack();
    const std::string expected = fmt::format(" {} flow entries have been deleted", entries_);
    if (run.status.success() && run.errors.find(expected) != std::string::npos) return seconds;
    throw lab::Error("conntrack did not delete the client's entries: " + run.errors);
  }

  [[nodiscard]] double readTable() const { return scanner_.floor(); }

 private:
  [[nodiscard]] Seconds leaveHere(Until until) const {
    Zan host;
    zanhost::Plugin plugin(options_.plugin);
    if (!plugin.loaded()) throw lab::Error(plugin.error());
    if (plugin.start(host) != 0) throw lab::Error("the plug-in does not start");
    awaitNeighbours(host, 2 * range_.count);
    const auto& counters = framework::deletionCounters();
    const std::uint64_t deletedBefore = counters.deleted;
    const std::uint64_t requestedBefore = counters.requested;
    const ZanDsmTextList nobody;
    host.zanDsm.dispatchEvent(ZAN_DSM_EVENT_SAP_CLIENTS, &macs_);
    const double cpuBefore = cpuSeconds();
    Seconds seconds{};
    seconds.deleted = secondsOf([&] {
      seconds.blocked =
          secondsOf([&] { host.zanDsm.dispatchEvent(ZAN_DSM_EVENT_SAP_CLIENTS, &nobody); });
      while (counters.deleted - deletedBefore < entries_) std::this_thread::sleep_for(kLook);
    });
    if (until == Until::kCleanedUp && !base::eventually(isAlone)) {
      throw lab::Error("the clean-ups do not end");
    }
    seconds.cpu = cpuSeconds() - cpuBefore;
    plugin.stop();
    static_cast<void>(framework::awaitDeletions(base::kPatience));
    const std::uint64_t requested = counters.requested - requestedBefore;
    if (requested == entries_) return seconds;
    throw lab::Error(fmt::format("a flush asked for {} deletions, not {}", requested, entries_));
  }

  void comeBack() {
    for (std::size_t i = 0; i < range_.count; ++i) table_.refill(range_.first + i);
  }

  const Options& options_;
  Range range_;
  BenchTable table_;
  Scanner<> scanner_;
  ZanDsmTextList macs_;
  std::size_t entries_ = 0;
};

/// Whose the table is, who leaves, and the targets.
struct Departure {
  const char* name;
  std::size_t owners;  ///< clients that own the table, from number 0
  Leavers::Range leaving;
  Target event;               ///< in readings of the table
  std::optional<Target> cpu;  ///< of the event and the clean-ups, in seconds
};

void measureDeparture(const Options& options, const Departure& departure, Report& report) {
  constexpr Effort kFewRounds{3, 0};
  Leavers leavers(options, {kEntries, departure.owners}, departure.leaving);
  const Comparison event = compare(
      kFewRounds, [&] { return leavers.leave(Leavers::Until::kDeleted).blocked; },
      [&] { return leavers.readTable(); });
  report.add({fmt::format("{}: event", departure.name), "read to the end", event.ratio, "x",
              departure.event,
              fmt::format("{:.0f} ms, a reading {:.0f} ms", event.subject.median * 1e3,
                          event.peer.median * 1e3)});
  if (!departure.cpu) return;
  const double cpu = leavers.leave(Leavers::Until::kCleanedUp).cpu;
  report.add({fmt::format("{}: CPU time of three flushes", departure.name),
              "",
              {cpu, cpu, cpu},
              "s",
              departure.cpu,
              "once"});
}

}  // namespace

void measureFlushes(const Options& options, Report& report) {
  constexpr TableShape kIpv4Alone{kEntries, 100, Families::kIpv4};
  Leavers client(options, kIpv4Alone, {BenchTable::kLoneClient, 1});
  const Comparison result = compare(
      options.effort, [&] { return client.leave(Leavers::Until::kDeleted).deleted; },
      [&] { return client.deleteByConntrack(); });
  report.add({fmt::format("flush of 1 % of {}", grouped(kEntries)), "conntrack -D -s", result.ratio,
              "x", atMost(0.70),
              fmt::format("{:.1f} ms, conntrack {:.1f} ms", result.subject.median * 1e3,
                          result.peer.median * 1e3)});
}

void measureDepartures(const Options& options, Report& report) {
  const Departure departures[] = {
      {"200 clients leave", 200, {0, 200}, atMost(12), atMost(4)},
      {"200 leave, the table is others'", 20, {20, 200}, atMost(12), atMost(4)},
      {"10 of 200 clients leave", 200, {20, 10}, atMost(2.5), std::nullopt},
  };
  for (const Departure& departure : departures) measureDeparture(options, departure, report);
}

}  // namespace bench
