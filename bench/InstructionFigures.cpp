// What a line of the table costs in instructions, as callgrind counts them.
#include <fmt/format.h>
#include <sys/mman.h>
#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <string>

#include "base/UniqueFd.h"
#include "bench/Figures.h"
#include "bench/Report.h"
#include "bench/Scanner.h"
#include "lab/Error.h"
#include "lab/Process.h"

namespace bench {
namespace {

constexpr int kLines = 1000;

/// What the kernel prints of a connection of the owner; its port is left open.
constexpr char kIpv4Line[] =
    "ipv4     2 tcp      6 3599 ESTABLISHED src=192.168.43.2 dst=198.18.100.100 sport={0} "
    "dport=443 "
    "src=198.18.100.100 dst=100.64.7.7 sport=443 dport={0} [ASSURED] mark=0 zone=0 use=2\n";
constexpr char kIpv6Line[] =
    "ipv6     10 tcp      6 3599 ESTABLISHED src=2001:0db8:0043:0000:0000:0000:0000:0002 "
    "dst=2001:0db8:005e:0000:0000:0000:0000:0001 sport={0} dport=443 "
    "src=2001:0db8:005e:0000:0000:0000:0000:0001 dst=2001:0db8:0043:0000:0000:0000:0000:0002 "
    "sport=443 dport={0} [ASSURED] mark=0 zone=0 use=2\n";

/// The owner of the lines, and another client.
constexpr char kOwnIpv4[] = "192.168.43.2";
constexpr char kOwnIpv6[] = "2001:0db8:0043:0000:0000:0000:0000:0002";
constexpr char kOtherIpv4[] = "192.168.43.57";
constexpr char kOtherIpv6[] = "2001:0db8:0043:0000:0000:0000:0000:0039";

/// The limits leave room for where a line happens to lie in memory: the C library's search for a
/// text depends on it.
struct LineKind {
  const char* name;
  const char* line;
  const char* ipv4;  ///< of the client that is looked for
  const char* ipv6;  ///< empty if it is not known: then every line is looked at
  std::size_t matches;
  double limit;
};
constexpr LineKind kLineKinds[] = {
    {"a matching line, IPv4", kIpv4Line, kOwnIpv4, kOwnIpv6, kLines, 1'700},
    {"a matching line, IPv6", kIpv6Line, kOwnIpv4, kOwnIpv6, kLines, 2'500},
    {"a line that is skipped", kIpv4Line, kOtherIpv4, kOtherIpv6, 0, 1'100},
    {"a line looked at in vain", kIpv4Line, kOtherIpv4, "", 0, 1'500},
};

/// kLines lines of one kind, in memory.
base::UniqueFd tableOf(const LineKind& kind) {
  std::string text;
  for (int i = 0; i < kLines; ++i) text += fmt::format(fmt::runtime(kind.line), 20000 + i);
  base::UniqueFd file(memfd_create("table", MFD_CLOEXEC));
  if (write(file.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
    throw lab::systemError("cannot write a table into memory");
  }
  return file;
}

/// Instructions of this program's run with |lines| to read.
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

}  // namespace

void readLines(int count, const std::string& kindName) {
  for (const LineKind& kind : kLineKinds) {
    if (kindName != kind.name) continue;
    Scanner<> scanner(tableOf(kind));
    for (int line = 0; line < count; line += kLines) {
      scanner.scan({kConntrackTablePath, kind.ipv4, kind.ipv6}, kind.matches);
    }
  }
}

void measureInstructions(const Options& /*options*/, Report& report) {
  constexpr int kFew = 5 * kLines;
  constexpr int kMany = 25 * kLines;
  for (const LineKind& kind : kLineKinds) {
    // The difference leaves out what a run takes once.
    const double count =
        (instructionsOf(kind, kMany) - instructionsOf(kind, kFew)) / (kMany - kFew);
    report.add({fmt::format("{}, instructions", kind.name),
                "",
                {count, count, count},
                "",
                atMost(kind.limit),
                "counted by callgrind"});
  }
}

}  // namespace bench
