#include <fmt/format.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <list>
#include <string>

#include "base/UniqueFd.h"
#include "bench/BenchTable.h"
#include "bench/Figures.h"
#include "bench/Report.h"
#include "bench/Scanner.h"
#include "bench/SilentLog.h"
#include "ctmgr/ZanConnTrackParser.h"
#include "host/Zan.h"
#include "lab/Error.h"
#include "lab/Process.h"

namespace bench {
namespace {

constexpr int kLines = 1000;

/// What is asked of a line. The limits are in instructions; where the C library's search for a text
/// is most of them, they leave room for where a line happens to lie in memory.
struct LineKind {
  const char* name;
  const char* figure;
  bool ipv6;       ///< the line
  bool asksFor;    ///< whether it is the client's who is looked for
  bool knowsIpv6;  ///< whether that client's IPv6 address is known; else every line is looked at
  double limit;
};
constexpr LineKind kLineKinds[] = {
    {"ipv4", "a matching line, IPv4", false, true, true, 1'700},
    {"ipv6", "a matching line, IPv6", true, true, true, 2'500},
    {"skipped", "a line that is skipped", false, false, true, 1'100},
    {"vain", "a line looked at in vain", false, false, false, 1'500},
};

const LineKind& lineKind(const std::string& name) {
  return *std::find_if(std::begin(kLineKinds), std::end(kLineKinds),
                       [&](const LineKind& kind) { return kind.name == name; });
}

/// What the kernel prints of a TCP connection of |client|; its addresses are expanded already.
std::string tableLine(const Client& client, bool ipv6, int port) {
  const std::string own = ipv6 ? client.expandedIpv6 : client.ipv4;
  const std::string server = ipv6 ? "2001:0db8:005e:0000:0000:0000:0000:0001" : "198.18.100.100";
  const std::string upstream = ipv6 ? own : "100.64.7.7";
  return fmt::format(
      "{} tcp      6 3599 ESTABLISHED src={} dst={} sport={} dport=443 src={} dst={} sport=443 "
      "dport={} [ASSURED] mark=0 zone=0 use=2\n",
      ipv6 ? "ipv6     10" : "ipv4     2", own, server, port, server, upstream, port);
}

/// The parser on a file of kLines lines of one client.
class LineReader {
 public:
  explicit LineReader(const LineKind& kind) : expected_(kind.asksFor ? kLines : 0) {
    control_ = controlOf(BenchTable::client(kind.asksFor ? 0 : BenchTable::kLoneClient));
    if (!kind.knowsIpv6) control_.ipv6Address.clear();
    std::string text;
    for (int i = 0; i < kLines; ++i) {
      text += tableLine(BenchTable::client(0), kind.ipv6, 20000 + i);
    }
    if (write(file_.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
      throw lab::systemError("cannot write a table into memory");
    }
  }

  /// Reads all lines once.
  void read() {
    std::list<ZanConnTrackFilter_s> v4;
    std::list<ZanConnTrackFilter_s> v6;
    parser_.parseNfConnTrackFile(control_, v4, v6, file_.get());
    if (v4.size() + v6.size() != expected_) throw lab::Error("a scan found other lines");
  }

 private:
  SilentLog log_;
  Zan zan_;
  ZanConnTrackUtils utils_{zan_};
  base::UniqueFd file_{memfd_create("table", MFD_CLOEXEC)};
  ZanConnTrackParser parser_{utils_};
  ZanConnTrackFileParseControlType control_;
  std::size_t expected_;
};

double userSeconds() {
  rusage usage{};
  getrusage(RUSAGE_THREAD, &usage);
  return static_cast<double>(usage.ru_utime.tv_sec) +
         static_cast<double>(usage.ru_utime.tv_usec) / 1e6;
}

/// Nanoseconds of user time a line, over enough lines for the kernel's accounting.
double userNanoseconds(LineReader& reader) {
  constexpr int kReadings = 500;
  const double start = userSeconds();
  for (int i = 0; i < kReadings; ++i) reader.read();
  return (userSeconds() - start) * 1e9 / (static_cast<double>(kLines) * kReadings);
}

/// Instructions of this program's run with |lines| to read, as callgrind counts them.
double instructionsOf(const LineKind& kind, int lines) {
  const std::string self = std::filesystem::read_symlink("/proc/self/exe");
  const auto run =
      lab::Process::run({"valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null", self,
                         "--read-lines", std::to_string(lines), "--line", kind.name},
                        nullptr, {}, std::chrono::minutes(2));
  constexpr char kTotal[] = "Collected : ";
  const std::size_t total = run.errors.find(kTotal);
  if (!run.status.success() || total == std::string::npos) {
    throw lab::Error("valgrind did not count the instructions: " + run.errors);
  }
  return std::stod(run.errors.substr(total + sizeof(kTotal) - 1));
}

double instructionsOfLine(const LineKind& kind) {
  constexpr int kFew = 5 * kLines;
  constexpr int kMany = 25 * kLines;
  return (instructionsOf(kind, kMany) - instructionsOf(kind, kFew)) / (kMany - kFew);
}

}  // namespace

std::vector<std::string> lineKinds() {
  std::vector<std::string> names;
  for (const LineKind& kind : kLineKinds) names.emplace_back(kind.name);
  return names;
}

void readLines(int count, const std::string& kind) {
  LineReader reader(lineKind(kind));
  for (int line = 0; line < count; line += kLines) reader.read();
}

void measureInstructions(Report& report) {
  for (const LineKind& kind : kLineKinds) {
    const double count = instructionsOfLine(kind);
    report.add({std::string(kind.figure) + ", instructions",
                "",
                {count, count, count},
                "",
                atMost(kind.limit),
                "counted by callgrind"});
  }
}

void measureLines(const Options& options, Report& report) {
  for (const LineKind& kind : kLineKinds) {
    LineReader reader(kind);
    report.add({kind.figure, "", repeat(options.effort, [&] { return userNanoseconds(reader); }),
                "ns", std::nullopt, "user time"});
  }
  measureInstructions(report);
}

}  // namespace bench
