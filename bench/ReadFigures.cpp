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

namespace bench {
namespace {

/// Its stream has a buffer as the C library would give it.
class SmallReadsParser : public ZanConnTrackParser {
 public:
  using ZanConnTrackParser::ZanConnTrackParser;

  int setPrivilegeParams(int fd) {
    const int result = ZanConnTrackParser::setPrivilegeParams(fd);
    if (stream != nullptr) std::setvbuf(stream, smallBuffer_.data(), _IOFBF, smallBuffer_.size());
    return result;
  }

 private:
  std::array<char, 1024> smallBuffer_{};
};

/// Before 6.16 each read of the table starts with a walk from its head.
bool walksFromTheHead(const std::string& release) {
  int version = 0;
  int patch = 0;
  std::sscanf(release.c_str(), "%d.%d", &version, &patch);
  return version < 6 || (version == 6 && patch < 16);
}

}  // namespace

void measureReads(const Options& options, Report& report) {
  constexpr std::size_t kEntries = 10000;
  constexpr std::size_t kClients = 100;
  const BenchTable table({kEntries, kClients});
  const Client client = BenchTable::client(BenchTable::kLoneClient);
  const ZanConnTrackFileParseControlType control{kConntrackTablePath, client.ipv4,
                                                 client.expandedIpv6};
  const std::size_t expected = table.entriesOf(BenchTable::kLoneClient).size();
  const SilentLog log;
  Scanner<SmallReadsParser> small;
  Scanner<> own;
  const Comparison result = compare(
      options.effort, [&] { return small.scan(control, expected); },
      [&] { return own.scan(control, expected); });

  const std::string release = kernelRelease();
  const std::optional<Target> target =
      walksFromTheHead(release) ? std::optional(atLeast(2.5)) : std::nullopt;
  constexpr double kPerEntry = 1e6 / kEntries;
  const std::string scan = fmt::format("scan of {} on kernel {}", grouped(kEntries), release);
  report.add({scan + ", 4096-byte reads", "the same scan with 1024-byte reads", result.ratio, "x",
              target,
              fmt::format("{:.2f} us an entry, with 1024-byte reads {:.2f}",
                          result.peer.median * kPerEntry, result.subject.median * kPerEntry)});
  const Comparison floor = compare(
      options.effort, [&] { return own.scan(control, expected); }, [&] { return own.floor(); });
  report.add({scan + ", client owns 1 %", "read to the end", floor.ratio, "x", std::nullopt,
              fmt::format("{:.2f} us an entry, floor {:.2f}", floor.subject.median * kPerEntry,
                          floor.peer.median * kPerEntry)});
}

}  // namespace bench
