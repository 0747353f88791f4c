// zanbench: what the plug-in costs, beside what the kernel and other tools cost.

#include <CLI/CLI.hpp>

#include <cstdio>
#include <string>
#include <vector>

#include "bench/Figures.h"
#include "bench/Report.h"
#include "lab/Error.h"
#include "lab/Program.h"

namespace {

constexpr int kWrongArguments = 2;

struct Arguments {
  bench::Options options;
  bool quick = false;
  bool readSize = false;
  bool instructions = false;
  std::string merge;
  std::string json;
  std::string plotData;
  int readLines = 0;
  bool ipv6 = false;
};

void declareOptions(CLI::App& app, Arguments& arguments) {
  app.add_option("--plugin", arguments.options.plugin, "the plug-in as it ships");
  app.add_flag("--quick", arguments.quick, "smaller tables and fewer rounds: about a minute");
  auto* one = app.add_option_group("what to measure, instead of everything")->require_option(0, 1);
  one->add_flag("--read-size", arguments.readSize, "only what the size of the reads matters");
  one->add_flag("--instructions", arguments.instructions,
                "only the instructions of a line; fails when they are past their limit");
  app.add_option("--merge", arguments.merge, "a JSON file of another run, whose figures to add");
  app.add_option("--json", arguments.json, "a file for all figures");
  app.add_option("--plot-data", arguments.plotData, "a file for bench/plot.gnuplot");
  // What is run under callgrind.
  app.add_option("--read-lines", arguments.readLines)->group("");
  app.add_flag("--ipv6,!--ipv4", arguments.ipv6)->group("");
}

void measure(const Arguments& arguments, bench::Report& report) {
  if (arguments.instructions) return bench::measureInstructions(report);
  bench::measureReadSize(arguments.options, report);
  if (arguments.readSize) return;
  bench::measureLines(arguments.options, report);
  bench::measureScans(arguments.options, report);
  bench::measureFlushes(arguments.options, report);
  bench::measureNeighbours(arguments.options, report);
  bench::measureFootprint(arguments.options, report);
}

void measureAndReport(const Arguments& arguments) {
  bench::Report report;
  if (!arguments.merge.empty()) report.merge(arguments.merge);
  measure(arguments, report);
  if (!arguments.json.empty()) report.writeJson(arguments.json);
  if (!arguments.plotData.empty()) report.writePlotData(arguments.plotData);
  const std::vector<std::string> missed = report.missed();
  for (const std::string& figure : missed) std::printf("missed: %s\n", figure.c_str());
  if (missed.empty()) std::puts("every target is reached");
  if (arguments.instructions && !missed.empty()) {
    throw lab::Error("a matching line takes too many instructions");
  }
}

}  // namespace

int main(int argc, char** argv) {
  Arguments arguments;
  CLI::App app("Measures the plug-in against its floors and peers, in network namespaces.");
  declareOptions(app, arguments);
  try {
    app.parse(argc, argv);
    const bool all = arguments.readLines == 0 && !arguments.readSize && !arguments.instructions;
    if (all && arguments.options.plugin.empty()) throw CLI::RequiredError("--plugin");
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : kWrongArguments;
  }
  arguments.options.rounds = arguments.quick ? 5 : 11;
  arguments.options.tableSizes = {1000, 10000, 60000};
  if (!arguments.quick) arguments.options.tableSizes.push_back(200000);
  return lab::runProgram("zanbench", [&arguments] {
    if (arguments.readLines > 0) {
      bench::readMatchingLines(arguments.readLines, arguments.ipv6);
    } else {
      measureAndReport(arguments);
    }
  });
}
