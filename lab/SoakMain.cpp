// zansoak: the system at work for minutes. See Soak.

#include <CLI/CLI.hpp>
#include <sys/resource.h>

#include <cstdlib>
#include <random>
#include <string>

#include "lab/DemoReport.h"
#include "lab/Program.h"
#include "lab/Soak.h"

int main(int argc, char** argv) {
  constexpr int kWrongArguments = 2;
  constexpr int kMostMinutes = 1440;
  lab::Soak soak;
  int minutes = 2;
  soak.seed = std::random_device()();
  CLI::App app(
      "Runs a plug-in for minutes in a hotspot of network namespaces whose clients, upstream\n"
      "addresses and mobile link come and go; then checks the kernel's table, the host's\n"
      "counters and log, its memory, descriptors and threads. Needs what zandemo needs.");
  app.add_option("--host", soak.host.program, "the host program")->required();
  app.add_option("--plugin", soak.host.plugin, "the plug-in for it")->required();
  app.add_option("--seed", soak.seed, "the order of an earlier run, which has printed it");
  app.add_option("MINUTES", minutes, "how long")
      ->check(CLI::Range(1, kMostMinutes))
      ->capture_default_str();
  app.footer(
      "Exit status: 0 every claim held, 1 one did not (it says what), 2 wrong arguments,\n"
      "130 interrupted.");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : kWrongArguments;
  }
  soak.length = std::chrono::minutes(minutes);
  return lab::runProgram("zansoak", [&soak] {
    // Thousands of connections have both ends in this process.
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
    // One heap for all threads of the host: else each flush may begin a new one.
    ::setenv("MALLOC_ARENA_MAX", "1", 1);
    lab::DemoReport report;
    soak.run(report);
    report.say("\nAll " + std::to_string(report.checks()) + " claims held.");
  });
}
