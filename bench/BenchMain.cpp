// zanbench: what the plug-in costs, beside what the kernel and other tools cost.

#include <cstdio>
#include <exception>
#include <optional>
#include <string>
#include <vector>

#include "base/CommandLine.h"
#include "bench/Figures.h"
#include "bench/Report.h"
#include "lab/BuiltFile.h"
#include "lab/UserNamespace.h"

namespace {

constexpr int kFailed = 1;

struct Subject {
  const char* name;
  void (*measure)(const bench::Options& options, bench::Report& report);
};

constexpr Subject kSubjects[] = {
    {"reads", bench::measureReads},           {"lines", bench::measureLines},
    {"scans", bench::measureScans},           {"flushes", bench::measureFlushes},
    {"departures", bench::measureDepartures}, {"deletions", bench::measureDeletions},
    {"neighbours", bench::measureNeighbours}, {"footprint", bench::measureFootprint},
};

struct Arguments {
  bench::Options options;
  bool quick = false;
  std::string only;
  bool instructions = false;
  std::string merge;
  std::string json;
  std::string plotData;
  int readLines = 0;
  std::string line = "ipv4";
};

std::optional<int> readArguments(int argc, char** argv, Arguments& arguments) {
  std::vector<std::string> subjects;
  for (const Subject& subject : kSubjects) subjects.emplace_back(subject.name);
  constexpr int kMostLines = 1'000'000;
  return base::CommandLine(
             "Measures the plug-in against its floors and peers, in network namespaces.",
             "Exit status: 0 measured, 1 something could not be, or there are too many "
             "instructions,\n2 wrong arguments.")
      .text("--plugin", arguments.options.plugin, "the plug-in; that of the same build if none")
      .flag("--quick", arguments.quick, "smaller tables and fewer rounds: about a minute")
      .choice("--only", arguments.only, subjects, "one subject instead of all")
      .flag("--instructions", arguments.instructions,
            "only the instructions of a line; fails when they are past their limit")
      .text("--merge", arguments.merge, "a JSON file of another run, whose figures to add")
      .text("--json", arguments.json, "a file for all figures")
      .text("--plot-data", arguments.plotData, "a file for bench/plot.gnuplot")
      // What is run under callgrind.
      .number("--read-lines", arguments.readLines, 0, kMostLines, "")
      .hidden()
      .choice("--line", arguments.line, bench::lineKinds(), "")
      .hidden()
      .parse(argc, argv);
}

void measure(const Arguments& arguments, bench::Report& report) {
  if (arguments.instructions) return bench::measureInstructions(report);
  for (const Subject& subject : kSubjects) {
    if (!arguments.only.empty() && arguments.only != subject.name) continue;
    try {
      subject.measure(arguments.options, report);
    } catch (const std::exception& error) {
      report.fail(subject.name, error.what());
    }
  }
}

/// Returns the exit status.
int measureAndReport(const Arguments& arguments) {
  bench::Report report;
  if (!arguments.merge.empty()) report.merge(arguments.merge);
  measure(arguments, report);
  const bool allReached = report.conclude();
  if (!arguments.json.empty()) report.writeJson(arguments.json);
  if (!arguments.plotData.empty()) report.writePlotData(arguments.plotData);
  const bool judged = arguments.instructions;
  return report.complete() && (allReached || !judged) ? 0 : kFailed;
}

}  // namespace

int main(int argc, char** argv) {
  Arguments arguments;
  arguments.options.plugin = lab::builtFile("ctmgr/vendor.libzanctmgr.so");
  if (const auto status = readArguments(argc, argv, arguments)) return *status;
  arguments.options.effort = arguments.quick ? bench::Effort{7, 0.5} : bench::Effort{15, 2};
  arguments.options.tableSizes = {1000, 10000, 60000};
  if (!arguments.quick) arguments.options.tableSizes.push_back(200000);
  try {
    lab::UserNamespace::enterIfNeeded();
    if (arguments.readLines == 0) return measureAndReport(arguments);
    bench::readLines(arguments.readLines, arguments.line);
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "zanbench: %s\n", error.what());
    return kFailed;
  }
}
