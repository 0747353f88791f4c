#include "bench/ChildRun.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <exception>
#include <string>

#include "base/UniqueFd.h"
#include "lab/Error.h"

namespace bench {
namespace {

constexpr unsigned int kLimitSeconds = 180;

/// The first byte of what the child says.
constexpr char kResults = 'r';
constexpr char kFailure = 'f';

[[noreturn]] void beChild(const std::function<std::vector<double>()>& measurement, int pipe) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  alarm(kLimitSeconds);
  std::string said(1, kResults);
  try {
    const std::vector<double> results = measurement();
    said.resize(1 + results.size() * sizeof(double));
    std::memcpy(said.data() + 1, results.data(), results.size() * sizeof(double));
  } catch (const std::exception& error) {
    said = kFailure + std::string(error.what());
  }
  const ssize_t written = write(pipe, said.data(), said.size());
  _exit(written == static_cast<ssize_t>(said.size()) ? 0 : 1);
}

/// Everything up to the end of the stream.
std::string readAll(int fd) {
  std::string text;
  std::array<char, 4096> buffer;
  for (;;) {
    const ssize_t got = read(fd, buffer.data(), buffer.size());
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return text;
    text.append(buffer.data(), static_cast<std::size_t>(got));
  }
}

}  // namespace

std::vector<double> inChild(const std::function<std::vector<double>()>& measurement) {
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) throw lab::systemError("cannot create a pipe");
  const base::UniqueFd reading(ends[0]);
  base::UniqueFd writing(ends[1]);
  const pid_t child = fork();
  if (child < 0) throw lab::systemError("cannot fork for a measurement");
  if (child == 0) beChild(measurement, writing.get());
  writing.reset();
  const std::string said = readAll(reading.get());
  while (waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
  }
  if (said.empty()) throw lab::Error("a measurement died, or took longer than three minutes");
  if (said.front() == kFailure) throw lab::Error(said.substr(1));
  std::vector<double> results((said.size() - 1) / sizeof(double));
  std::memcpy(results.data(), said.data() + 1, results.size() * sizeof(double));
  return results;
}

}  // namespace bench
