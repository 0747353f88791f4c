// zandemo: two acts that show the system at work. See demo::Demo and IdleDemo.

#include <fstream>
#include <string>

#include "base/CommandLine.h"
#include "demo/Demo.h"
#include "demo/DemoReport.h"
#include "demo/IdleDemo.h"
#include "demo/Program.h"
#include "lab/Error.h"
#include "lab/HostProcess.h"

int main(int argc, char** argv) {
  lab::HostProcess::Options host;
  std::string plotData;
  int timers = 1;
  const auto status =
      base::CommandLine(
          "Shows the two jobs of a plug-in, run by a host program, on the kernel of this machine,\n"
          "and checks each in the kernel's own state:\n"
          "  1. a hotspot of network namespaces; a client leaves and an upstream address gets "
          "lost;\n"
          "     what is left of their connections is deleted\n"
          "  2. a mobile link falls asleep; the kernel's idle timer runs out and is set back\n"
          "Takes about half a minute, a minute on a terminal, where it can be read as it goes.\n"
          "Needs root or unprivileged user namespaces, and the programs ip, iptables and\n"
          "ip6tables. Nothing outside the namespaces is touched.",
          "Exit status: 0 everything shown held, 1 something did not (it says what), 2 wrong\n"
          "arguments, 130 interrupted.")
          .text("--host", host.program, "the host program, unless it is that of this build")
          .text("--plugin", host.plugin, "the same for the plug-in")
          .number("--timers", timers, 1, demo::IdleDemo::kTimers,
                  "how many idle timers run out; all take three minutes more")
          .text("--plot-data", plotData,
                "write what was observed to this file, for demo/plot.gnuplot")
          .parse(argc, argv);
  if (status) return *status;
  return demo::runProgram("zandemo", [&](const demo::Waiting& waiting) {
    using Pace = demo::DemoReport::Pace;
    // A plot shows as much as somebody who reads along.
    demo::DemoReport report(plotData.empty() ? demo::DemoReport::usualPace() : Pace::kForReaders);
    demo::Demo hotspot(host, report, waiting);
    hotspot.run();
    demo::IdleDemo link(host, report, waiting, timers);
    link.run();
    if (!plotData.empty()) {
      std::ofstream file(plotData);
      file << hotspot.plotData() << link.plotData() << std::flush;
      if (!file) throw lab::Error("cannot write " + plotData);
    }
    report.end();
  });
}
