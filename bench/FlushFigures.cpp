#include <fcntl.h>
#include <fmt/format.h>

#include <optional>

#include "base/UniqueFd.h"
#include "bench/BenchTable.h"
#include "bench/ChildRun.h"
#include "bench/Figures.h"
#include "bench/PluginHost.h"
#include "bench/Report.h"
#include "lab/Error.h"
#include "lab/Process.h"
#include "refhost/framework/HostLog.h"
#include "refhost/zanhost/LogSink.h"

namespace bench {
namespace {

constexpr std::size_t kEntries = 60000;
constexpr std::size_t kClients = 100;
constexpr std::size_t kClientEntries = kEntries / kClients;

/// A client goes, and comes back with its entries.
class Departure {
 public:
  Departure(const std::string& plugin, bool ipv6)
      : plugin_(plugin), table_({kEntries, kClients, ipv6}) {}

  /// Seconds from the event to the last acknowledgement, the host's log at its default threshold.
  double seenByPlugin(bool knowsIpv6) {
    std::vector<Neighbour> known{{client_.ipv4, client_.mac}};
    if (knowsIpv6) known.push_back({client_.ipv6, client_.mac});
    const auto results = inChild([&]() -> std::vector<double> {
      const base::UniqueFd nowhere(open("/dev/null", O_WRONLY | O_CLOEXEC));
      const zanhost::LogSink log(nowhere.get(), zanhost::LogSink::Format::kText, kLogNotice);
      PluginHost host(plugin_);
      host.learn(neighbours_, known);
      return {host.flush(client_.mac, kClientEntries)};
    });
    table_.refill(BenchTable::kLoneClient);
    return results.front();
  }

  /// Seconds of the runs of conntrack(8), one for each family, that delete the same entries.
  double seenByConntrack() {
    const std::size_t ofIpv4 = table_.ipv4EntriesOf(BenchTable::kLoneClient);
    double seconds = deleteByConntrack("ipv4", client_.ipv4, ofIpv4);
    if (ofIpv4 < kClientEntries) {
      seconds += deleteByConntrack("ipv6", client_.ipv6, kClientEntries - ofIpv4);
    }
    table_.refill(BenchTable::kLoneClient);
    return seconds;
  }

 private:
  double deleteByConntrack(const char* family, const std::string& address, std::size_t entries) {
    lab::CommandResult run;
    const double seconds = secondsOf([&] {
      run = lab::Process::run({"conntrack", "-D", "-f", family, "-s", address}, &table_.where());
    });
    const std::string expected = fmt::format(" {} flow entries have been deleted", entries);
    if (run.status.success() && run.errors.find(expected) != std::string::npos) return seconds;
    throw lab::Error("conntrack did not delete the client's entries: " + run.errors);
  }

  std::string plugin_;
  Client client_ = BenchTable::client(BenchTable::kLoneClient);
  BenchTable table_;
  NeighbourTable neighbours_{table_.where()};
};

/// One kind of flush. conntrack(8) asks the kernel for one family at a time, so that a table of
/// IPv4 alone is equal work.
struct Flush {
  const char* name;
  bool ipv6;
  bool knowsIpv6;
  std::optional<Target> target;
};

}  // namespace

void measureFlushes(const Options& options, Report& report) {
  const Flush flushes[] = {
      {"flush of 1 % of 60,000", false, true, atMost(0.70)},
      {"flush of 1 % of 60,000, no IPv6 address known", false, false, std::nullopt},
      {"flush of 1 % of 60,000, a quarter IPv6", true, true, std::nullopt},
  };
  for (const Flush& flush : flushes) {
    Departure departure(options.plugin, flush.ipv6);
    const Comparison result = compare(
        options.effort, [&] { return departure.seenByPlugin(flush.knowsIpv6); },
        [&] { return departure.seenByConntrack(); });
    report.add({flush.name, flush.ipv6 ? "conntrack -D -s, once a family" : "conntrack -D -s",
                result.ratio, "x", flush.target,
                fmt::format("{:.1f} ms, conntrack {:.1f} ms", result.subject.median * 1e3,
                            result.peer.median * 1e3)});
  }
}

}  // namespace bench
