// zantry: the lab at a prompt. See demo::Try.

#include "base/CommandLine.h"
#include "demo/Program.h"
#include "demo/Try.h"

int main(int argc, char** argv) {
  const auto status =
      base::CommandLine(
          "A hotspot of network namespaces and a mobile link, with the host program on the\n"
          "gateway: you decide what happens. The first screen suggests what to type.",
          "Exit status: 0 at the end of the input, 1 when something failed, 2 wrong arguments,\n"
          "130 interrupted.")
          .parse(argc, argv);
  if (status) return *status;
  return demo::runProgram("zantry",
                          [&](const demo::Waiting& waiting) { demo::Try(waiting).run(); });
}
