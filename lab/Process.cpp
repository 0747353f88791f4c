// Programs that run in a network namespace of the lab.
#include "lab/Process.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>

#include "lab/Error.h"
#include "lab/NetNamespace.h"

namespace lab {
namespace {

std::string searchPath() {
  const char* path = std::getenv("PATH");
  return std::string(path != nullptr ? path : "/usr/bin:/bin") + ":/usr/sbin:/sbin";
}

std::vector<std::string> childEnvironment() {
  std::vector<std::string> result;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string text(*entry);
    if (!text.starts_with("PATH=") && !text.starts_with("XTABLES_LOCKFILE=")) {
      result.push_back(text);
    }
  }
  result.push_back("PATH=" + searchPath());
  // The legacy iptables locks a file under /run, which an unprivileged user may not create.
  // Nobody else works in the lab's namespaces, so any file that opens will do.
  result.emplace_back("XTABLES_LOCKFILE=/dev/null");
  return result;
}

base::Program programOf(const std::vector<std::string>& argv, const NetNamespace* where) {
  base::Program program;
  program.path = base::findProgram(argv.at(0), searchPath());
  if (program.path.empty()) {
    throw Error("cannot find the program '" + argv[0] + "' in " + searchPath() +
                " (install the Debian package that brings it; ip is in iproute2)");
  }
  program.words = argv;
  program.environment = childEnvironment();
  if (where != nullptr) program.networkNamespace = where->fd();
  return program;
}

base::Program withStreams(base::Program program, int input, int output, int errors) {
  program.input = input;
  program.output = output;
  program.errors = errors;
  return program;
}

std::string join(const std::vector<std::string>& argv) {
  std::string text;
  for (const std::string& word : argv) text += (text.empty() ? "" : " ") + word;
  return text;
}

}  // namespace

/// A socket, to which one can write without a signal when nobody reads any more.
Process::Stream Process::inputStream() {
  std::array<int, 2> ends{};
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
    throw systemError("cannot create a pair of sockets");
  }
  return {base::UniqueFd(ends[0]), base::UniqueFd(ends[1])};
}

Process::Stream Process::outputStream() {
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) throw systemError("cannot create a pipe");
  return {base::UniqueFd(ends[0]), base::UniqueFd(ends[1])};
}

Process::Process(const std::vector<std::string>& argv, const NetNamespace* where)
    : child_(withStreams(programOf(argv, where), input_.theirs.get(), output_.theirs.get(),
                         errors_.theirs.get())) {
  if (child_.error() != 0) throw systemError("cannot execute " + argv[0], child_.error());
  for (Stream* stream : {&input_, &output_, &errors_}) stream->theirs.reset();
}

base::ProgramRun Process::run(const std::vector<std::string>& argv, const NetNamespace* where,
                              const std::string& input, std::chrono::milliseconds limit) {
  base::ProgramRun run = base::run(programOf(argv, where), input, limit);
  if (run.error != 0) throw systemError("cannot execute " + argv[0], run.error);
  if (!run.tookTooLong) return run;
  throw Error("'" + join(argv) + "' was not done within " + std::to_string(limit.count()) +
              " ms and was killed; it said: " + run.output + run.errors);
}

std::string Process::runChecked(const std::vector<std::string>& argv, const NetNamespace* where,
                                const std::string& input) {
  base::ProgramRun result = run(argv, where, input);
  if (result.status.success()) return std::move(result.output);
  throw Error("'" + join(argv) + "' ended with " + result.status.text() + ": " + result.errors +
              result.output + (input.empty() ? "" : "\nits input was:\n" + input));
}

void Process::runIpBatch(const NetNamespace& where, const std::string& lines) {
  runChecked({"ip", "-batch", "-"}, &where, lines);
}

bool Process::write(const std::string& text) {
  for (std::size_t sent = 0; sent < text.size();) {
    const ssize_t count =
        ::send(input_.ours.get(), text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
    if (count < 0 && errno != EINTR) return false;
    if (count > 0) sent += static_cast<std::size_t>(count);
  }
  return true;
}

}  // namespace lab
