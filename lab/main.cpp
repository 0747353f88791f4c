// zandemo: the act that shows the system at work. See Demo.

#include <csignal>
#include <cstdio>
#include <exception>
#include <string>

#include "lab/Demo.h"
#include "lab/UserNamespace.h"

namespace {

constexpr const char* kUsage =
    "usage: zandemo --host PROGRAM --plugin LIBRARY\n"
    "\n"
    "Raises a hotspot of network namespaces on this machine, runs the host PROGRAM with the\n"
    "plug-in LIBRARY on its gateway, lets a client leave and an upstream address get lost, and\n"
    "checks what happens in the kernel's connection table. Takes about six seconds. Needs root\n"
    "or unprivileged user namespaces, and the programs ip, iptables and ip6tables. Nothing\n"
    "outside the namespaces is touched.\n"
    "\n"
    "Exit status: 0 everything shown held, 1 something did not (it says what), 2 wrong\n"
    "arguments, 130 interrupted.\n";

constexpr int kWrongArguments = 2;
constexpr int kInterrupted = 130;

struct Arguments {
  std::string host;
  std::string plugin;
  bool help = false;
  bool valid = true;
};

Arguments parse(int argc, char** argv) {
  Arguments result;
  for (int i = 1; i < argc; ++i) {
    const std::string word = argv[i];
    if (word == "--help" || word == "-h") {
      result.help = true;
    } else if (word == "--host" && i + 1 < argc) {
      result.host = argv[++i];
    } else if (word == "--plugin" && i + 1 < argc) {
      result.plugin = argv[++i];
    } else {
      std::fprintf(stderr, "zandemo: unknown or incomplete argument '%s'\n", word.c_str());
      result.valid = false;
    }
  }
  return result;
}

void handleSignal(int) {
  lab::Demo::requestStop();
}

void catchSignals() {
  struct sigaction action {};
  action.sa_handler = handleSignal;
  action.sa_flags = SA_RESTART;
  for (const int number : {SIGINT, SIGTERM}) ::sigaction(number, &action, nullptr);
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
  try {
    lab::UserNamespace::enterIfNeeded();
    catchSignals();
    lab::Demo(arguments.host, arguments.plugin).run();
    return 0;
  } catch (const lab::Demo::Interrupted& interrupted) {
    std::fprintf(stderr, "\nzandemo: %s\n", interrupted.what());
    return kInterrupted;
  } catch (const lab::CheckFailed& failed) {
    std::fprintf(stderr, "\nzandemo: %s\n", failed.what());
  } catch (const std::exception& error) {
    std::fprintf(stderr, "\nzandemo: %s\n", error.what());
  }
  return 1;
}
