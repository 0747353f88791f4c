// A measurement in a process of its own.
#include "bench/ChildRun.h"

#include <unistd.h>

#include <chrono>
#include <cstring>
#include <exception>
#include <string>

#include "base/ChildProcess.h"
#include "base/MemoryFile.h"
#include "lab/Error.h"

namespace bench {
namespace {

constexpr std::chrono::minutes kLimit{3};

/// The first byte of what the child says.
constexpr char kResults = 'r';
constexpr char kFailure = 'f';

std::string outcomeOf(const std::function<std::vector<double>()>& measurement) {
  try {
    const std::vector<double> results = measurement();
    std::string said(1 + results.size() * sizeof(double), kResults);
    std::memcpy(said.data() + 1, results.data(), results.size() * sizeof(double));
    return said;
  } catch (const std::exception& error) {
    return kFailure + std::string(error.what());
  }
}

}  // namespace

std::vector<double> inChild(const std::function<std::vector<double>()>& measurement) {
  const base::MemoryFile outcome;
  base::ChildProcess child([&] {
    const std::string said = outcomeOf(measurement);
    if (write(outcome.fd(), said.data(), said.size()) < 0) _exit(1);
  });
  if (child.error() != 0) throw lab::systemError("cannot fork for a measurement", child.error());
  if (!child.waitFor(kLimit) || !child.status().success()) {
    throw lab::Error("a measurement died, or took longer than three minutes");
  }
  const std::string said = outcome.content();
  if (said.front() == kFailure) throw lab::Error(said.substr(1));
  std::vector<double> results((said.size() - 1) / sizeof(double));
  std::memcpy(results.data(), said.data() + 1, results.size() * sizeof(double));
  return results;
}

}  // namespace bench
