// The parser on the table of a namespace, through its public interface.
#pragma once

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <list>

#include "bench/Measure.h"
#include "ctmgr/ZanConnTrackParser.h"
#include "host/Zan.h"
#include "lab/Error.h"
#include "refhost/UniqueFd.h"

namespace bench {

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
  UniqueFd fd_;
  Zan zan_;
  ZanConnTrackUtils utils_{zan_};
  Parser parser_{utils_};
};

}  // namespace bench
