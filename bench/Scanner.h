// The parser on the table of a namespace, through its public interface.
#pragma once

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <list>
#include <optional>
#include <string>

#include "base/UniqueFd.h"
#include "bench/BenchTable.h"
#include "bench/Measure.h"
#include "bench/Report.h"
#include "ctmgr/ZanConnTrackParser.h"
#include "host/Zan.h"
#include "lab/Error.h"

namespace bench {

/// What the parser is asked for to find |client|.
[[nodiscard]] inline ZanConnTrackFileParseControlType controlOf(const Client& client) {
  return {kConntrackTablePath, client.ipv4, client.expandedIpv6};
}

/// Figure |name|: scans of a table of |entries| against its floor.
[[nodiscard]] inline Figure againstFloor(const std::string& name, const Comparison& result,
                                         std::size_t entries) {
  const double perEntry = 1e6 / static_cast<double>(entries);
  return {name,
          "read to the end",
          result.ratio,
          "x",
          std::nullopt,
          fmt::format("{:.2f} us an entry, floor {:.2f}", result.subject.median * perEntry,
                      result.peer.median * perEntry)};
}

/// |Parser| is ZanConnTrackParser or derived from it. Needs a log object, such as SilentLog.
template <typename Parser = ZanConnTrackParser>
class Scanner {
 public:
  /// The table is that of the main thread's namespace. Throws lab::Error.
  Scanner() : fd_(open(kConntrackTablePath, O_RDONLY | O_CLOEXEC)) {
    if (!fd_.valid()) throw lab::systemError("cannot open the conntrack table");
    parser_.setPrivilegeParams(fd_.get());
  }

  /// Seconds of a scan for |control|. Throws lab::Error unless it finds |expected| entries.
  double scan(const ZanConnTrackFileParseControlType& control, std::size_t expected) {
    std::list<ZanConnTrackFilter_s> v4;
    std::list<ZanConnTrackFilter_s> v6;
    const double seconds =
        secondsOf([&] { parser_.parseNfConnTrackFile(control, v4, v6, fd_.get()); });
    const std::size_t found = v4.size() + v6.size();
    if (found == expected) return seconds;
    throw lab::Error(fmt::format("a scan found {} entries, not {}", found, expected));
  }

  /// Seconds of reading the same descriptor to its end, with reads as large as the parser's own.
  [[nodiscard]] double floor() const {
    constexpr std::size_t kReadSize = 4096;
    return secondsOf([this] {
      std::array<char, kReadSize> buffer;
      lseek(fd_.get(), 0, SEEK_SET);
      while (read(fd_.get(), buffer.data(), buffer.size()) > 0) {
      }
    });
  }

 private:
  base::UniqueFd fd_;
  Zan zan_;
  ZanConnTrackUtils utils_{zan_};
  Parser parser_{utils_};
};

}  // namespace bench
