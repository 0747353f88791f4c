#include <fmt/format.h>

#include <array>
#include <cstdio>
#include <optional>
#include <string>

#include "bench/BenchTable.h"
#include "bench/Figures.h"
#include "bench/Report.h"
#include "bench/Scanner.h"
#include "bench/SilentLog.h"
#include "lab/Kernel.h"

namespace bench {
namespace {

/// Its stream has a buffer as the C library would give it.
class SmallReadsParser : public ZanConnTrackParser {
 public:
  using ZanConnTrackParser::ZanConnTrackParser;

  int setPrivilegeParams(int fd) {
    const int result = ZanConnTrackParser::setPrivilegeParams(fd);
    const ReadingTurn turn(turns, ReadingTurns::Asker::kEvent);
    if (stream != nullptr) std::setvbuf(stream, smallBuffer_.data(), _IOFBF, smallBuffer_.size());
    return result;
  }

 private:
  std::array<char, 1024> smallBuffer_{};
};

}  // namespace

void measureReads(const Options& options, Report& report) {
  constexpr std::size_t kEntries = 10000;
  constexpr std::size_t kClients = 100;
  const BenchTable table({kEntries, kClients});
  const auto control = controlOf(BenchTable::client(BenchTable::kLoneClient));
  const std::size_t expected = table.entriesOf(BenchTable::kLoneClient).size();
  const SilentLog log;
  Scanner<SmallReadsParser> small;
  Scanner<> own;
  const Comparison result = compare(
      options.effort, [&] { return small.scan(control, expected); },
      [&] { return own.scan(control, expected); });

  // Before 6.16 each read of the table starts with a walk from its head.
  const std::optional<Target> target =
      lab::kernelIsAtLeast(6, 16) ? std::nullopt : std::optional(atLeast(2.5));
  constexpr double kPerEntry = 1e6 / kEntries;
  const std::string scan =
      fmt::format("scan of {} on kernel {}", grouped(kEntries), lab::kernelRelease());
  report.add({scan + ", 4096-byte reads", "the same scan with 1024-byte reads", result.ratio, "x",
              target,
              fmt::format("{:.2f} us an entry, with 1024-byte reads {:.2f}",
                          result.peer.median * kPerEntry, result.subject.median * kPerEntry)});
  const Comparison floor = compare(
      options.effort, [&] { return own.scan(control, expected); }, [&] { return own.floor(); });
  report.add(againstFloor(scan + ", client owns 1 %", floor, kEntries));
}

}  // namespace bench
