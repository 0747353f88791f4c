#include <fcntl.h>
#include <fmt/format.h>

#include <optional>
#include <utility>

#include "base/UniqueFd.h"
#include "bench/BenchTable.h"
#include "bench/Figures.h"
#include "bench/Report.h"
#include "bench/Scanner.h"
#include "bench/SilentLog.h"
#include "refhost/framework/HostLog.h"
#include "refhost/zanhost/LogSink.h"

namespace bench {
namespace {

/// One kind of scan: who is looked for, and how many of a table's entries that finds.
struct Kind {
  const char* name;
  std::size_t clients;  ///< owners of the table's entries
  std::size_t client;   ///< the one that is looked for
  bool knowsIpv6;
  std::optional<Target> target;
  bool hostLog = false;  ///< the reference host's log at its default threshold
};

const std::vector<Kind>& kinds() {
  static const std::vector<Kind> all{
      {"client owns 1 %", 100, BenchTable::kLoneClient, true, atMost(1.08)},
      {"client owns all", 1, 0, true, atMost(1.28)},
      {"owns 1 %, host's log", 100, BenchTable::kLoneClient, true, std::nullopt, true},
      {"owns all, host's log", 1, 0, true, std::nullopt, true},
      {"owns 1 %, text within ten others", 100, 0, true, std::nullopt},
      {"owns 1 %, no IPv6 address known", 100, BenchTable::kLoneClient, false, atMost(1.15)},
  };
  return all;
}

/// Tables whose scans have a target: in smaller ones the cost of a start weighs, larger ones do not
/// fit into every cache.
bool isJudged(std::size_t entries) {
  return entries == 10000 || entries == 60000;
}

/// What a scan of |kind| finds in |table|.
std::size_t expectedOf(const BenchTable& table, const Kind& kind) {
  return kind.knowsIpv6 ? table.entriesOf(kind.client).size() : table.ipv4EntriesOf(kind.client);
}

Comparison measure(const BenchTable& table, const Kind& kind, const Effort& effort) {
  // The threshold drops every line of a scan.
  const base::UniqueFd nowhere(open("/dev/null", O_WRONLY | O_CLOEXEC));
  std::optional<SilentLog> silent;
  std::optional<zanhost::LogSink> hostLog;
  if (kind.hostLog) {
    hostLog.emplace(nowhere.get(), zanhost::LogSink::Format::kText, kLogNotice);
  } else {
    silent.emplace();
  }
  Scanner<> scanner;
  ZanConnTrackFileParseControlType control = controlOf(BenchTable::client(kind.client));
  if (!kind.knowsIpv6) control.ipv6Address.clear();
  const std::size_t expected = expectedOf(table, kind);
  return compare(
      effort, [&] { return scanner.scan(control, expected); }, [&] { return scanner.floor(); });
}

/// The largest table against kSmallTable, filled in turn: side by side each would lengthen the
/// other's scans.
void measureGrowth(const Options& options, Report& report) {
  constexpr std::size_t kSmallTable = 10000;
  constexpr double kSlack = 1.1;
  constexpr int kSmallScans = 5;
  const std::size_t entries = options.tableSizes.back();
  const auto times = static_cast<double>(entries) / kSmallTable;
  const SilentLog log;
  BenchTable table({kSmallTable, 100});
  Scanner<> scanner;
  const auto control = controlOf(BenchTable::client(BenchTable::kLoneClient));
  const auto scanOf = [&](std::size_t size, int scans) {
    table.resize(size);
    const std::size_t expected = table.entriesOf(BenchTable::kLoneClient).size();
    double seconds = 0;
    for (int i = 0; i < scans; ++i) seconds += scanner.scan(control, expected);
    return seconds / scans;
  };
  const Comparison result = compare(
      options.effort, [&] { return scanOf(entries, 1); },
      [&] { return scanOf(kSmallTable, kSmallScans); });
  report.add({fmt::format("scan of {}, {:.0f} times the entries", grouped(entries), times),
              fmt::format("scan of {}", grouped(kSmallTable)), result.ratio, "x",
              atMost(kSlack * times),
              fmt::format("{:.1f} ms, then {:.1f} ms", result.peer.median * 1e3,
                          result.subject.median * 1e3)});
}

}  // namespace

void measureScans(const Options& options, Report& report) {
  for (const std::size_t entries : options.tableSizes) {
    for (const std::size_t clients : {100UL, 1UL}) {
      const BenchTable table({entries, clients});
      for (const Kind& kind : kinds()) {
        if (kind.clients != clients) continue;
        const Comparison result = measure(table, kind, options.effort);
        Figure figure = againstFloor(fmt::format("scan of {}, {}", grouped(entries), kind.name),
                                     result, entries);
        if (isJudged(entries)) figure.target = kind.target;
        figure.point = Point{kind.name, static_cast<double>(entries)};
        report.add(std::move(figure));
      }
    }
  }
  measureGrowth(options, report);
}

}  // namespace bench
