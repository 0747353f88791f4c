// The parser on a conntrack table, through its public interface.
#pragma once

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <list>
#include <utility>

#include "base/UniqueFd.h"
#include "bench/BenchTable.h"
#include "bench/Measure.h"
#include "ctmgr/ZanConnTrackParser.h"
#include "host/Zan.h"
#include "lab/Error.h"

namespace bench {

/// What the parser is asked for to find |client|.
[[nodiscard]] inline ZanConnTrackFileParseControlType controlOf(const Client& client) {
  return {kConntrackTablePath, client.ipv4, client.expandedIpv6};
}

/// A descriptor of the table of the main thread's namespace. Throws lab::Error.
[[nodiscard]] inline base::UniqueFd openTable() {
  base::UniqueFd table(open(kConntrackTablePath, O_RDONLY | O_CLOEXEC));
  if (!table.valid()) throw lab::systemError("cannot open the conntrack table");
  return table;
}

struct Scan {
  double seconds;
  std::list<ZanConnTrackFilter_s> v4;
  std::list<ZanConnTrackFilter_s> v6;
};

/// |Parser| is ZanConnTrackParser or derived from it.
template <typename Parser = ZanConnTrackParser>
class Scanner {
 public:
  explicit Scanner(base::UniqueFd table = openTable()) : table_(std::move(table)) {
    parser_.setPrivilegeParams(table_.get());
  }

  /// Throws lab::Error unless |expected| entries are found for |control|.
  Scan scan(const ZanConnTrackFileParseControlType& control, std::size_t expected) {
    Scan scan{};
    scan.seconds =
        secondsOf([&] { parser_.parseNfConnTrackFile(control, scan.v4, scan.v6, table_.get()); });
    const std::size_t found = scan.v4.size() + scan.v6.size();
    if (found == expected) return scan;
    throw lab::Error(fmt::format("a scan found {} entries, not {}", found, expected));
  }

  /// Seconds of reading the same descriptor to its end, with reads as large as the parser's own.
  [[nodiscard]] double floor() const {
    constexpr std::size_t kReadSize = 4096;
    return secondsOf([this] {
      std::array<char, kReadSize> buffer;
      lseek(table_.get(), 0, SEEK_SET);
      while (read(table_.get(), buffer.data(), buffer.size()) > 0) {
      }
    });
  }

 private:
  base::UniqueFd table_;
  Zan zan_;
  ZanConnTrackUtils utils_{zan_};
  Parser parser_{utils_};
};

}  // namespace bench
