// zanbench: what the plug-in costs, beside what the kernel and other tools cost.

#include <cstdio>
#include <exception>
#include <optional>
#include <string>
#include <vector>

#include "base/CommandLine.h"
#include "bench/Figures.h"
#include "bench/Report.h"
#include "host/ZanMsg.h"
#include "lab/BuiltFile.h"
#include "lab/UserNamespace.h"

namespace {

constexpr int kExitFailed = 1;
constexpr char kInstructions[] = "instructions";

struct Subject {
  const char* name;
  void (*measure)(const bench::Options& options, bench::Report& report);
};

constexpr Subject kSubjects[] = {
    {"reads", bench::measureReads},           {kInstructions, bench::measureInstructions},
    {"scans", bench::measureScans},           {"flushes", bench::measureFlushes},
    {"departures", bench::measureDepartures}, {"deletions", bench::measureDeletions},
};

/// A log object that drops every line: what a log costs is the host's business.
class SilentLog final : public ZanMsg {
 public:
  SilentLog() { zan_log_class_ptr = this; }
  void setThreshold(int /*level*/) override {}
  [[nodiscard]] bool enabled(int /*level*/) const override { return false; }
  [[gnu::format(printf, 4, 5)]] void log(int /*level*/, int /*module*/, const char* /*format*/,
                                         ...) override {}
};

struct Arguments {
  bench::Options options;
  bool quick = false;
  std::string only;
  std::string json;
  int readLines = 0;
  std::string line;
};

std::optional<int> readArguments(int argc, char** argv, Arguments& arguments) {
  std::vector<std::string> subjects;
  for (const Subject& subject : kSubjects) subjects.emplace_back(subject.name);
  constexpr int kMostLines = 1'000'000;
  return base::CommandLine(
             "Measures the plug-in against its floors and peers, in network namespaces.",
             "Exit status: 0 measured, 1 something could not be, or the instructions alone were "
             "measured\nand are too many, 2 wrong arguments.")
      .text("--plugin", arguments.options.plugin, "the plug-in; that of the same build if none")
      .flag("--quick", arguments.quick, "smaller tables and fewer rounds: about two minutes")
      .choice("--only", arguments.only, subjects, "one subject instead of all")
      .text("--json", arguments.json, "a file for all figures")
      // What is run under callgrind.
      .number("--read-lines", arguments.readLines, 0, kMostLines, "")
      .hidden()
      .text("--line", arguments.line, "")
      .hidden()
      .parse(argc, argv);
}

/// Returns the exit status.
int measure(const Arguments& arguments) {
  bench::Report report;
  for (const Subject& subject : kSubjects) {
    if (!arguments.only.empty() && arguments.only != subject.name) continue;
    try {
      subject.measure(arguments.options, report);
    } catch (const std::exception& error) {
      report.fail(subject.name, error.what());
    }
  }
  // A time that misses its target may be this machine's; instructions are the code's.
  const bool tooMany = report.conclude() > 0 && arguments.only == kInstructions;
  if (!arguments.json.empty()) report.writeJson(arguments.json);
  return report.complete() && !tooMany ? 0 : kExitFailed;
}

}  // namespace

int main(int argc, char** argv) {
  static SilentLog log;  // threads that nobody waits for may log to the end
  Arguments arguments;
  arguments.options.plugin = lab::builtFile("ctmgr/vendor.libzanctmgr.so");
  if (const auto status = readArguments(argc, argv, arguments)) return *status;
  arguments.options.effort = arguments.quick ? bench::Effort{7, 0.5} : bench::Effort{15, 2};
  arguments.options.tableSizes = {1000, 10000, 60000};
  if (!arguments.quick) arguments.options.tableSizes.push_back(200000);
  try {
    lab::UserNamespace::enterIfNeeded();
    if (arguments.readLines == 0) return measure(arguments);
    bench::readLines(arguments.readLines, arguments.line);
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "zanbench: %s\n", error.what());
    return kExitFailed;
  }
}
