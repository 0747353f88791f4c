// zanbench: what the plug-in costs, beside what the kernel and other tools cost.

#include <CLI/CLI.hpp>

#include <cstdio>
#include <string>

#include "bench/Figures.h"
#include "bench/Report.h"
#include "lab/Program.h"

namespace {

constexpr int kWrongArguments = 2;

struct Arguments {
  bench::Options options;
  bool quick = false;
  std::string json;
  int readLines = 0;
  bool ipv6 = false;
};

void declareOptions(CLI::App& app, Arguments& arguments) {
  app.add_option("--plugin", arguments.options.plugin, "the plug-in as it ships");
  app.add_flag("--quick", arguments.quick, "smaller tables and fewer rounds: about a minute");
  app.add_option("--json", arguments.json, "a file for all figures");
  // What is run under callgrind.
  app.add_option("--read-lines", arguments.readLines)->group("");
  app.add_flag("--ipv6,!--ipv4", arguments.ipv6)->group("");
}

void measureAll(const Arguments& arguments) {
  bench::Report report;
  bench::measureLines(arguments.options, report);
  bench::measureScans(arguments.options, report);
  bench::measureFlushes(arguments.options, report);
  bench::measureNeighbours(arguments.options, report);
  bench::measureFootprint(arguments.options, report);
  if (!arguments.json.empty()) report.writeJson(arguments.json);
  for (const std::string& missed : report.missed()) std::printf("missed: %s\n", missed.c_str());
}

}  // namespace

int main(int argc, char** argv) {
  Arguments arguments;
  CLI::App app("Measures the plug-in against its floors and peers, in network namespaces.");
  declareOptions(app, arguments);
  try {
    app.parse(argc, argv);
    const bool measures = arguments.readLines == 0;
    if (measures && arguments.options.plugin.empty()) throw CLI::RequiredError("--plugin");
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
      measureAll(arguments);
    }
  });
}
