// The host program, running on the gateway.
#include "lab/HostProcess.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>

#include "base/Patience.h"
#include "lab/Error.h"
#include "lab/NetNamespace.h"

namespace lab {
namespace {

constexpr std::size_t kTailLines = 20;

std::vector<std::string> commandLine(const HostProcess::Options& options) {
  std::vector<std::string> argv{options.program,
                                "--plugin",
                                options.plugin,
                                "--log-format",
                                "json",
                                "--log-level",
                                std::to_string(options.logLevel)};
  for (const std::string& property : options.properties) {
    argv.emplace_back("--property");
    argv.push_back(property);
  }
  argv.insert(argv.end(), options.arguments.begin(), options.arguments.end());
  return argv;
}

bool isReady(const HostProcess::LogLine& line) {
  return line.module == "HOST" && line.text.starts_with("ready");
}

bool isComplaint(const HostProcess::LogLine& line) {
  return line.module == "HOST" && line.text.starts_with("refused: ");
}

/// Takes lines from a descriptor, which is -1 once it has ended.
struct LineStream {
  int fd;
  std::string partial;

  /// The lines that are complete with what can be read now.
  std::vector<std::string> read() {
    std::array<char, 65536> buffer;
    const ssize_t got = ::read(fd, buffer.data(), buffer.size());
    if (got == 0 || (got < 0 && errno != EINTR && errno != EAGAIN)) fd = -1;
    if (got > 0) partial.append(buffer.data(), static_cast<std::size_t>(got));
    std::vector<std::string> lines;
    std::size_t begin = 0;
    for (std::size_t end = 0; (end = partial.find('\n', begin)) != std::string::npos;) {
      lines.push_back(partial.substr(begin, end - begin));
      begin = end + 1;
    }
    partial.erase(0, begin);
    return lines;
  }
};

}  // namespace

HostProcess::HostProcess(const Options& options, const NetNamespace& where)
    : process_(commandLine(options), &where),
      end_(options.end),
      stopCollecting_(::eventfd(0, EFD_CLOEXEC)) {
  if (!stopCollecting_.valid()) throw systemError("cannot create an eventfd");
  collector_ = std::thread([this] { collect(); });
  if (waitForLog(isReady)) return;

  const std::string why = fate("does not get ready");
  killAndJoin();
  throw Error("the host " + options.program + " " + why);
}

HostProcess::~HostProcess() {
  if (end_ == Options::End::kInOrder) {
    process_.signal(SIGTERM);
    process_.waitFor();
  }
  killAndJoin();
}

void HostProcess::killAndJoin() {
  process_.signal(SIGKILL);
  ::eventfd_write(stopCollecting_.get(), 1);
  collector_.join();
}

std::string HostProcess::command(const std::string& text) {
  std::unique_lock lock(mutex_);
  const std::size_t answersBefore = answers_.size();
  const std::size_t logBefore = log_.size();
  const auto complaint = [&] {
    return std::find_if(log_.begin() + static_cast<std::ptrdiff_t>(logBefore), log_.end(),
                        isComplaint);
  };
  lock.unlock();
  // A host that does not read any more is about to end, and its output with it.
  static_cast<void>(process_.write(text + "\n"));
  lock.lock();
  changed_.wait_for(lock, base::kPatience, [&] {
    return answers_.size() > answersBefore || outputEnded_ || complaint() != log_.end();
  });
  if (answers_.size() > answersBefore) return answers_[answersBefore];
  const auto refusal = complaint();
  if (refusal != log_.end()) {
    throw Error("the host refuses the command '" + text + "': " + refusal->text);
  }
  lock.unlock();
  throw Error("the command '" + text + "' failed: the host " + fate("does not answer"));
}

HostState HostProcess::status() {
  return HostState::parse(command("status json"));
}

std::optional<HostProcess::LogLine> HostProcess::waitForLog(const Predicate& predicate) {
  std::unique_lock lock(mutex_);
  std::size_t next = 0;
  std::optional<LogLine> found;
  changed_.wait_for(lock, base::kPatience, [&] {
    for (; next < log_.size() && !found; ++next) {
      if (predicate(log_[next])) found = log_[next];
    }
    return found.has_value() || outputEnded_;
  });
  return found;
}

std::vector<HostProcess::LogLine> HostProcess::log() const {
  const std::lock_guard lock(mutex_);
  return log_;
}

base::ExitStatus HostProcess::stop(int signal) {
  if (signal != 0) process_.signal(signal);
  if (!process_.waitFor()) {
    process_.signal(SIGKILL);
    throw Error("the host does not end after signal " + std::to_string(signal) +
                " and was killed. It said last:" + logTail());
  }
  // A child of the host could hold its streams open, hence the limit.
  std::unique_lock lock(mutex_);
  changed_.wait_for(lock, base::kPatience, [this]() -> bool { return outputEnded_; });
  return process_.status();
}

void HostProcess::collect() {
  LineStream answers{process_.outputFd(), {}};
  LineStream log{process_.errorsFd(), {}};
  std::array<pollfd, 3> waits{};
  while ((answers.fd >= 0 || log.fd >= 0) && waits[2].revents == 0) {
    waits = {pollfd{answers.fd, POLLIN, 0}, pollfd{log.fd, POLLIN, 0},
             pollfd{stopCollecting_.get(), POLLIN, 0}};
    if (::poll(waits.data(), waits.size(), -1) < 0) continue;
    // Log lines first: what was logged before an answer is filed before it.
    if (waits[1].revents != 0) fileLog(log.read());
    if (waits[0].revents == 0) continue;
    const std::vector<std::string> lines = answers.read();
    const std::lock_guard lock(mutex_);
    answers_.insert(answers_.end(), lines.begin(), lines.end());
    changed_.notify_all();
  }
  if (!log.partial.empty()) fileLog({log.partial});
  const std::lock_guard lock(mutex_);
  outputEnded_ = true;
  changed_.notify_all();
}

void HostProcess::fileLog(const std::vector<std::string>& lines) {
  for (const std::string& line : lines) {
    LogLine parsed = HostLogLine::parse(line);
    const std::lock_guard lock(mutex_);
    log_.push_back(std::move(parsed));
  }
  changed_.notify_all();
}

std::string HostProcess::fate(const std::string& otherwise) {
  const bool ended = outputEnded_ && process_.waitFor();
  return (ended ? "ended with " + process_.status().text() : otherwise) +
         ". It said last:" + logTail();
}

std::string HostProcess::logTail() const {
  const std::lock_guard lock(mutex_);
  if (log_.empty()) return " nothing";
  std::string text;
  const std::size_t first = log_.size() > kTailLines ? log_.size() - kTailLines : 0;
  for (std::size_t i = first; i < log_.size(); ++i) {
    text += "\n  " + log_[i].module + " " + log_[i].text;
  }
  return text;
}

}  // namespace lab
