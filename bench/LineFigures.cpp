#include <fmt/format.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <filesystem>
#include <list>
#include <string>

#include "bench/BenchTable.h"
#include "bench/Figures.h"
#include "bench/Report.h"
#include "bench/Scanner.h"
#include "bench/SilentLog.h"
#include "ctmgr/ZanConnTrackParser.h"
#include "host/Zan.h"
#include "lab/Error.h"
#include "lab/Process.h"
#include "refhost/UniqueFd.h"

namespace bench {
namespace {

constexpr int kLines = 1000;

// Instructions of a matching line, at most: a fifth above what they were, for other compilers, C
// libraries and vector units.
constexpr double kInstructionLimitIpv4 = 2'850;
constexpr double kInstructionLimitIpv6 = 4'450;

std::string figureName(bool ipv6) {
  return ipv6 ? "a matching line, IPv6" : "a matching line, IPv4";
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

/// The parser on a file of kLines lines, all of them of one client.
class LineReader {
 public:
  explicit LineReader(bool ipv6) {
    const Client client = BenchTable::client(0);
    control_ = controlOf(client);
    std::string text;
    for (int i = 0; i < kLines; ++i) text += tableLine(client, ipv6, 20000 + i);
    if (write(file_.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
      throw lab::systemError("cannot write a table into memory");
    }
  }

  /// Reads all lines once.
  void read() {
    std::list<ZanConnTrackFilter_s> v4;
    std::list<ZanConnTrackFilter_s> v6;
    parser_.parseNfConnTrackFile(control_, v4, v6, file_.get());
    if (v4.size() + v6.size() != std::size_t{kLines})
      throw lab::Error("a line of the client was not found");
  }

 private:
  SilentLog log_;
  Zan zan_;
  ZanConnTrackUtils utils_{zan_};
  UniqueFd file_{memfd_create("table", MFD_CLOEXEC)};
  ZanConnTrackParser parser_{utils_};
  ZanConnTrackFileParseControlType control_;
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
double instructionsOf(bool ipv6, int lines) {
  const std::string self = std::filesystem::read_symlink("/proc/self/exe");
  std::vector<std::string> command{"valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null",
                                   self,       "--read-lines",     std::to_string(lines)};
  if (ipv6) command.emplace_back("--ipv6");
  const auto run = lab::Process::run(command, nullptr, {}, std::chrono::minutes(2));
  constexpr char kTotal[] = "Collected : ";
  const std::size_t total = run.errors.find(kTotal);
  if (!run.status.success() || total == std::string::npos) {
    throw lab::Error("valgrind did not count the instructions: " + run.errors);
  }
  return std::stod(run.errors.substr(total + sizeof(kTotal) - 1));
}

double instructionsOfMatchingLine(bool ipv6) {
  constexpr int kFew = 5 * kLines;
  constexpr int kMany = 25 * kLines;
  return (instructionsOf(ipv6, kMany) - instructionsOf(ipv6, kFew)) / (kMany - kFew);
}

}  // namespace

void readMatchingLines(int count, bool ipv6) {
  LineReader reader(ipv6);
  for (int line = 0; line < count; line += kLines) reader.read();
}

void measureInstructions(Report& report) {
  for (const bool ipv6 : {false, true}) {
    const double count = instructionsOfMatchingLine(ipv6);
    report.add({figureName(ipv6) + ", instructions",
                "",
                {count, count, count},
                "",
                atMost(ipv6 ? kInstructionLimitIpv6 : kInstructionLimitIpv4),
                "counted by callgrind"});
  }
}

void measureLines(const Options& options, Report& report) {
  for (const bool ipv6 : {false, true}) {
    LineReader reader(ipv6);
    report.add({figureName(ipv6), "",
                repeat(options.effort, [&] { return userNanoseconds(reader); }), "ns", atMost(300),
                "user time"});
  }
  measureInstructions(report);
}

}  // namespace bench
