// What a scan adds to reading the table, how it grows, and what the size of its reads matters.
#include <fmt/format.h>

#include <array>
#include <cstdio>
#include <optional>
#include <utility>

#include "bench/BenchTable.h"
#include "bench/Figures.h"
#include "bench/Report.h"
#include "bench/Scanner.h"
#include "lab/Kernel.h"

namespace bench {
namespace {

/// Who is looked for in a scan, and how many of a table's entries that finds.
struct Kind {
  const char* name;
  std::size_t clients;  ///< owners of the table's entries
  std::size_t client;   ///< the one that is looked for
  enum class Known { kBothFamilies, kIpv4 } addresses;
  Target target;
};

constexpr Kind kKinds[] = {
    {"client owns 1 %", 100, BenchTable::kLoneClient, Kind::Known::kBothFamilies, atMost(1.08)},
    {"owns 1 %, no IPv6 address known", 100, BenchTable::kLoneClient, Kind::Known::kIpv4,
     atMost(1.15)},
    {"client owns all", 1, 0, Kind::Known::kBothFamilies, atMost(1.28)},
};

/// Tables whose scans have a target: in smaller ones the cost of a start weighs, larger ones do not
/// fit into every cache.
bool isJudged(std::size_t entries) {
  return entries == 10000 || entries == 60000;
}

void measureScan(const Kind& kind, std::size_t entries, const Options& options, Report& report) {
  const BenchTable table({entries, kind.clients});
  auto control = controlOf(BenchTable::client(kind.client));
  std::size_t expected = table.entriesOf(kind.client);
  if (kind.addresses == Kind::Known::kIpv4) {
    control.ipv6Address.clear();
    expected = table.ipv4EntriesOf(kind.client);
  }
  Scanner<> scanner;
  const Comparison result = compare(
      options.effort, [&] { return scanner.scan(control, expected).seconds; },
      [&] { return scanner.floor(); });
  const double perEntry = 1e6 / static_cast<double>(entries);
  report.add({fmt::format("scan of {}, {}", grouped(entries), kind.name), "read to the end",
              result.ratio, "x", isJudged(entries) ? std::optional(kind.target) : std::nullopt,
              fmt::format("{:.2f} us an entry, floor {:.2f}", result.subject.median * perEntry,
                          result.peer.median * perEntry)});
}

/// The largest table against kSmallTable, filled in turn: side by side each would lengthen the
/// other's scans.
void measureGrowth(const Options& options, Report& report) {
  constexpr std::size_t kSmallTable = 10000;
  constexpr double kSlack = 1.1;
  const std::size_t entries = options.tableSizes.back();
  const auto times = static_cast<double>(entries) / kSmallTable;
  BenchTable table({kSmallTable, 100});
  Scanner<> scanner;
  const auto control = controlOf(BenchTable::client(BenchTable::kLoneClient));
  const auto scanOf = [&](std::size_t size) {
    table.resize(size);
    return scanner.scan(control, table.entriesOf(BenchTable::kLoneClient)).seconds;
  };
  const Comparison result = compare(
      options.effort, [&] { return scanOf(entries); }, [&] { return scanOf(kSmallTable); });
  report.add({fmt::format("scan of {}, {:.0f} times the entries", grouped(entries), times),
              fmt::format("scan of {}", grouped(kSmallTable)), result.ratio, "x",
              atMost(kSlack * times),
              fmt::format("{:.1f} ms, then {:.1f} ms", result.peer.median * 1e3,
                          result.subject.median * 1e3)});
}

/// Its stream has a buffer as the C library would give it.
class SmallReadsParser : public ZanConnTrackParser {
 public:
  using ZanConnTrackParser::ZanConnTrackParser;

  int setPrivilegeParams(int fd) {
    const int result = ZanConnTrackParser::setPrivilegeParams(fd);
    const ctmgr::ReadingTurn turn(turns, ctmgr::ReadingTurns::Asker::kEvent);
    if (stream != nullptr) std::setvbuf(stream, smallBuffer_.data(), _IOFBF, smallBuffer_.size());
    return result;
  }

 private:
  std::array<char, 1024> smallBuffer_{};
};

}  // namespace

void measureScans(const Options& options, Report& report) {
  for (const std::size_t entries : options.tableSizes) {
    for (const Kind& kind : kKinds) measureScan(kind, entries, options, report);
  }
  measureGrowth(options, report);
}

void measureReads(const Options& options, Report& report) {
  constexpr std::size_t kTableSize = 10000;
  constexpr double kPerEntry = 1e6 / kTableSize;
  const BenchTable table({kTableSize, 100});
  const auto control = controlOf(BenchTable::client(BenchTable::kLoneClient));
  const std::size_t expected = table.entriesOf(BenchTable::kLoneClient);
  Scanner<SmallReadsParser> small;
  Scanner<> own;
  const Comparison result = compare(
      options.effort, [&] { return small.scan(control, expected).seconds; },
      [&] { return own.scan(control, expected).seconds; });
  // Before 6.16 each read of the table starts with a walk from its head.
  const bool judged = !lab::kernelIsAtLeast(6, 16);
  report.add({fmt::format("scan of {} on kernel {}, 4096-byte reads", grouped(kTableSize),
                          lab::kernelRelease()),
              "the same scan with 1024-byte reads", result.ratio, "x",
              judged ? std::optional(atLeast(2.5)) : std::nullopt,
              fmt::format("{:.2f} us an entry, with 1024-byte reads {:.2f}",
                          result.peer.median * kPerEntry, result.subject.median * kPerEntry)});
}

}  // namespace bench
