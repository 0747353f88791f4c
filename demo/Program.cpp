#include "demo/Program.h"

#include <csignal>
#include <cstdio>
#include <exception>
#include <string>

#include "demo/Demo.h"
#include "lab/UserNamespace.h"

namespace demo {
namespace {

constexpr int kFailed = 1;
constexpr int kInterrupted = 130;

void handleSignal(int) {
  Demo::requestStop();
}

void catchSignals() {
  struct sigaction action {};
  action.sa_handler = handleSignal;
  action.sa_flags = SA_RESTART;
  for (const int number : {SIGINT, SIGTERM}) ::sigaction(number, &action, nullptr);
}

}  // namespace

int runProgram(const char* name, const std::function<void()>& play) {
  try {
    lab::UserNamespace::enterIfNeeded();
    catchSignals();
    play();
    return 0;
  } catch (const std::exception& error) {
    // A terminal interrupts the host too, so its end may be what is noticed first.
    const bool interrupted = Demo::stopIsRequested();
    const std::string why = interrupted ? Demo::Interrupted().what() : error.what();
    std::fprintf(stderr, "\n%s: %s\n", name, why.c_str());
    return interrupted ? kInterrupted : kFailed;
  }
}

}  // namespace demo
