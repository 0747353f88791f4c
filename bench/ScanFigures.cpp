#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <array>
#include <list>
#include <map>
#include <optional>

#include "bench/BenchTable.h"
#include "bench/Figures.h"
#include "bench/Report.h"
#include "bench/SilentLog.h"
#include "ctmgr/ZanConnTrackParser.h"
#include "host/Zan.h"
#include "lab/Error.h"
#include "refhost/LogSink.h"
#include "refhost/UniqueFd.h"

namespace bench {
namespace {

/// What the plug-in's own stream asks for.
constexpr std::size_t kReadSize = 4096;

/// The client that is looked for: no other's address contains its own.
constexpr std::size_t kClient = 55;

/// The parser on the table of the calling thread's namespace.
class Scanner {
 public:
  Scanner() : fd_(open("/proc/net/nf_conntrack", O_RDONLY | O_CLOEXEC)) {
    if (!fd_.valid()) throw lab::systemError("cannot open /proc/net/nf_conntrack");
  }

  /// Seconds of a scan for |control|, which must find |expected| entries.
  double scan(const ZanConnTrackFileParseControlType& control, std::size_t expected) {
    std::list<ZanConnTrackFilter_s> v4;
    std::list<ZanConnTrackFilter_s> v6;
    const double seconds =
        secondsOf([&] { parser_.parseNfConnTrackFile(control, v4, v6, fd_.get()); });
    const std::size_t found = v4.size() + v6.size();
    if (found == expected) return seconds;
    throw lab::Error(fmt::format("a scan found {} entries, not {}", found, expected));
  }

  /// Seconds of reading the same descriptor to its end.
  [[nodiscard]] double floor() const {
    return secondsOf([this] {
      std::array<char, kReadSize> buffer;
      lseek(fd_.get(), 0, SEEK_SET);
      while (read(fd_.get(), buffer.data(), buffer.size()) > 0) {
      }
    });
  }

 private:
  UniqueFd fd_;
  Zan zan_;
  ZanConnTrackUtils utils_{zan_};
  ZanConnTrackParser parser_{utils_};
};

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
      {"client owns 1 %", 100, kClient, true, atMost(1.05)},
      {"client owns all", 1, 0, true, atMost(1.25)},
      {"owns 1 %, host's log", 100, kClient, true, std::nullopt, true},
      {"owns all, host's log", 1, 0, true, std::nullopt, true},
      {"owns 1 %, text within ten others", 100, 0, true, std::nullopt},
      {"owns 1 %, no IPv6 address known", 100, kClient, false, std::nullopt},
  };
  return all;
}

/// What a scan of |kind| finds in |table|.
std::size_t expectedOf(const BenchTable& table, const Kind& kind) {
  const auto entries = table.entriesOf(kind.client);
  if (kind.knowsIpv6) return entries.size();
  std::size_t ipv4 = 0;
  for (const auto& entry : entries) ipv4 += std::size_t{entry.reply.has_value()};
  return ipv4;
}

Comparison measure(const BenchTable& table, const Kind& kind, int rounds) {
  // Nothing is dropped but by the threshold, so nothing is written.
  const UniqueFd nowhere(open("/dev/null", O_WRONLY | O_CLOEXEC));
  constexpr int kDefaultThreshold = 2;
  std::optional<SilentLog> silent;
  std::optional<LogSink> hostLog;
  if (kind.hostLog) {
    hostLog.emplace(nowhere.get(), LogSink::Format::kText, kDefaultThreshold);
  } else {
    silent.emplace();
  }
  Scanner scanner;
  const Client client = BenchTable::client(kind.client);
  const ZanConnTrackFileParseControlType control{kConntrackTablePath, client.ipv4,
                                                 kind.knowsIpv6 ? client.expandedIpv6 : ""};
  const std::size_t expected = expectedOf(table, kind);
  return compare(
      rounds, [&] { return scanner.scan(control, expected); }, [&] { return scanner.floor(); });
}

}  // namespace

void measureScans(const Options& options, Report& report) {
  std::map<std::string, std::map<std::size_t, double>> seconds;
  for (const std::size_t entries : options.tableSizes) {
    for (const std::size_t clients : {100UL, 1UL}) {
      const BenchTable table({entries, clients});
      for (const Kind& kind : kinds()) {
        if (kind.clients != clients) continue;
        const Comparison result = measure(table, kind, options.rounds);
        const double perEntry = 1e6 / static_cast<double>(entries);
        report.add({fmt::format("scan of {}, {}", grouped(entries), kind.name), "read to the end",
                    result.ratio, "x", kind.target,
                    fmt::format("{:.2f} us an entry, floor {:.2f}",
                                result.subject.median * perEntry, result.peer.median * perEntry)});
        seconds[kind.name][entries] = result.subject.median;
      }
    }
  }
}

}  // namespace bench
