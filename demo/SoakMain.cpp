// zansoak: the system at work for minutes. See Soak.

#include <sys/resource.h>

#include <cstdlib>
#include <random>
#include <string>

#include "base/CommandLine.h"
#include "demo/DemoReport.h"
#include "demo/Program.h"
#include "demo/Soak.h"

int main(int argc, char** argv) {
  constexpr int kMostMinutes = 1440;
  lab::HostProcess::Options host;
  int minutes = 2;
  std::uint32_t seed = std::random_device()();
  const auto status =
      base::CommandLine(
          "Runs a plug-in for minutes in a hotspot of network namespaces whose clients, upstream\n"
          "addresses and mobile link come and go; then checks the kernel's table, the host's\n"
          "counters, its memory, descriptors and threads. Needs what zandemo needs.",
          "Exit status: 0 every claim held, 1 one did not (it says what), 2 wrong arguments,\n"
          "130 interrupted.")
          .text("--host", host.program, "the host program, unless it is that of this build")
          .text("--plugin", host.plugin, "the same for the plug-in")
          .number("--seed", seed, "the order of an earlier run, which has printed it")
          .number("MINUTES", minutes, 1, kMostMinutes, "how long")
          .parse(argc, argv);
  if (status) return *status;
  return demo::runProgram("zansoak", [&](const demo::Waiting& waiting) {
    // Thousands of connections have both ends in this process.
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
    // One heap for all threads of the host: else each flush may begin a new one.
    ::setenv("MALLOC_ARENA_MAX", "1", 1);
    demo::DemoReport report;
    demo::Soak(host, seed, report, waiting).run(std::chrono::minutes(minutes));
    report.end();
  });
}
