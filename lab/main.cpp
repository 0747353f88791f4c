// zandemo: two acts that show the system at work. See Demo and IdleDemo.

#include <cstdio>
#include <string>

#include "lab/Demo.h"
#include "lab/DemoReport.h"
#include "lab/HostProcess.h"
#include "lab/IdleDemo.h"
#include "lab/Program.h"

namespace {

constexpr const char* kUsage =
    "usage: zandemo --host PROGRAM --plugin LIBRARY [--timers N] [--kernel-text]\n"
    "\n"
    "Shows the two jobs of the plug-in LIBRARY, run by the host PROGRAM, on the kernel of this\n"
    "machine, and checks each in the kernel's own state:\n"
    "  1. a hotspot of network namespaces; a client leaves and an upstream address gets lost;\n"
    "     what is left of their connections is deleted\n"
    "  2. a mobile link falls asleep; the kernel's idle timer runs out and is set back\n"
    "Takes about half a minute. Needs root or unprivileged user namespaces, and the programs ip,\n"
    "iptables and ip6tables. Nothing outside the namespaces is touched.\n"
    "\n"
    "  --timers N      let the first N of the five idle timers run out, 1 unless given; all take\n"
    "                  three minutes more\n"
    "  --kernel-text   also print the kernel's own lines of tables and timers\n"
    "\n"
    "Exit status: 0 everything shown held, 1 something did not (it says what), 2 wrong\n"
    "arguments, 130 interrupted.\n";

constexpr int kWrongArguments = 2;

struct Arguments {
  std::string host;
  std::string plugin;
  int timers = 1;
  bool kernelText = false;
  bool help = false;
  bool valid = true;
};

bool isCount(const std::string& word) {
  return word.size() == 1 && word[0] >= '1' && word[0] <= '0' + lab::IdleDemo::kTimers;
}

Arguments parse(int argc, char** argv) {
  Arguments result;
  for (int i = 1; i < argc; ++i) {
    const std::string word = argv[i];
    if (word == "--help" || word == "-h") {
      result.help = true;
    } else if (word == "--timers" && i + 1 < argc && isCount(argv[i + 1])) {
      result.timers = argv[++i][0] - '0';
    } else if (word == "--kernel-text") {
      result.kernelText = true;
    } else if (word == "--host" && i + 1 < argc) {
      result.host = argv[++i];
    } else if (word == "--plugin" && i + 1 < argc) {
      result.plugin = argv[++i];
    } else {
      std::fprintf(stderr, "zandemo: unknown, incomplete or wrong argument '%s'\n", word.c_str());
      result.valid = false;
    }
  }
  return result;
}

void play(const Arguments& arguments) {
  lab::HostProcess::Options host;
  host.program = arguments.host;
  host.plugin = arguments.plugin;
  lab::DemoReport report(arguments.kernelText);
  lab::Demo(host, report).run();
  lab::IdleDemo(host, report, arguments.timers).run();
  report.say("\nAll " + std::to_string(report.checks()) + " claims held.");
}

}  // namespace

int main(int argc, char** argv) {
  const Arguments arguments = parse(argc, argv);
  if (arguments.help) {
    std::fputs(kUsage, stdout);
    return 0;
  }
  if (!arguments.valid || arguments.host.empty() || arguments.plugin.empty()) {
    std::fputs(kUsage, stderr);
    return kWrongArguments;
  }
  return lab::runProgram("zandemo", [&arguments] { play(arguments); });
}
