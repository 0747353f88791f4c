// Formatting on the caller's thread, writing on spdlog's.
#include "refhost/zanhost/LogSink.h"

#include <spdlog/async.h>
#include <spdlog/sinks/base_sink.h>
#include <syslog.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdarg>
#include <ctime>
#include <future>
#include <mutex>
#include <string>
#include <utility>

#include "refhost/framework/HostLog.h"
#include "refhost/zanhost/Json.h"
#include "refhost/zanhost/TimedWrite.h"

namespace zanhost {
namespace {

/// Enough for all but the longest conntrack lines.
constexpr std::size_t kUsualLength = 1024;

std::string moduleName(int module) {
  switch (module) {
    case ZAN_LOG_MODULE_CT_MGR:
      return "CT_MGR";
    case ZAN_LOG_MODULE_CT_NET:
      return "CT_NET";
    case framework::kHostModule:
      return "HOST";
    default:
      return std::to_string(module);
  }
}

/// UTC, with microseconds.
std::string timeStamp() {
  const auto now = std::chrono::system_clock::now();
  const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
  const auto micros = std::chrono::duration_cast<std::chrono::microseconds>(
                          now - std::chrono::system_clock::from_time_t(seconds))
                          .count();
  std::tm utc{};
  gmtime_r(&seconds, &utc);
  std::array<char, 32> date{};
  std::strftime(date.data(), date.size(), "%Y-%m-%dT%H:%M:%S", &utc);
  return fmt::format("{}.{:06}Z", date.data(), micros);
}

/// |text| on one line: what a client can bring into it must not look like a line of its own.
std::string oneLine(std::string text) {
  while (!text.empty() && text.back() == '\n') text.pop_back();
  for (char& character : text) {
    if (static_cast<unsigned char>(character) < ' ' || character == '\x7f') character = '?';
  }
  return text;
}

std::string textLine(int level, int module, std::string text) {
  return fmt::format("{} {} {} {}", timeStamp(), level, moduleName(module),
                     oneLine(std::move(text)));
}

/// The journal has a time of its own.
std::string journalLine(int level, int module, std::string text) {
  constexpr std::array kPriorities{LOG_DEBUG, LOG_DEBUG, LOG_NOTICE, LOG_WARNING, LOG_ERR};
  const auto place = static_cast<std::size_t>(std::clamp(level, +kLogTrace, +kLogError));
  return fmt::format("<{}>{} {}", kPriorities.at(place), moduleName(module),
                     oneLine(std::move(text)));
}

/// What a sink and its writer share.
struct Ending {
  std::atomic<bool> closing{false};
  std::promise<void> allWritten;
};

/// Writes whole lines. While the sink is in use it waits for the reader as long as it takes; once
/// it is closing, no longer than kLastPatience. It is flushed once, behind the last line.
class StreamSink final : public spdlog::sinks::base_sink<std::mutex> {
 public:
  StreamSink(int target, std::shared_ptr<Ending> ending)
      : fd_(target), ending_(std::move(ending)) {}

 protected:
  void sink_it_(const spdlog::details::log_msg& message) override {
    if (gone_) return;
    const std::string line = fmt::format("{}\n", message.payload);
    for (std::string_view rest = line; !rest.empty() && !gone_;) {
      if (!writeTimed(fd_, rest, kLastPatience)) gone_ = ending_->closing || errno != ETIMEDOUT;
    }
  }
  void flush_() override { ending_->allWritten.set_value(); }

 private:
  static constexpr std::chrono::milliseconds kLastPatience{500};

  int fd_;
  std::shared_ptr<Ending> ending_;
  bool gone_ = false;
};

}  // namespace

struct LogSink::Writer {
  std::shared_ptr<Ending> ending = std::make_shared<Ending>();
  std::shared_ptr<spdlog::details::thread_pool> thread;
  std::shared_ptr<spdlog::async_logger> lines;
};

LogSink::LogSink(int fd, Format format, int threshold)
    : format_(format), threshold_(threshold), writer_(std::make_unique<Writer>()) {
  writer_->thread = std::make_shared<spdlog::details::thread_pool>(kQueueLength, 1);
  writer_->lines = std::make_shared<spdlog::async_logger>(
      "host", std::make_shared<StreamSink>(fd, writer_->ending), writer_->thread,
      spdlog::async_overflow_policy::overrun_oldest);
  zan_log_class_ptr = this;
}

LogSink::~LogSink() {
  zan_log_class_ptr = nullptr;
  finish();
  writer_->lines.reset();
  writer_->thread.reset();
}

void LogSink::finish() {
  if (finished_.exchange(true)) return;
  constexpr std::chrono::seconds kLimit{2};
  writer_->ending->closing = true;
  const std::size_t dropped = writer_->thread->overrun_counter();
  if (dropped != 0)
    write(kLogWarning, framework::kHostModule, fmt::format("log: {} lines dropped", dropped));
  writer_->lines->flush();
  writer_->ending->allWritten.get_future().wait_for(kLimit);
}

void LogSink::log(int level, int module, const char* format, ...) {
  if (finished_ || !enabled(level)) return;
  std::array<char, kUsualLength> usual;
  usual[0] = '\0';
  std::va_list arguments;
  va_start(arguments, format);
  const int length = std::vsnprintf(usual.data(), usual.size(), format, arguments);
  va_end(arguments);
  std::string text(usual.data());
  if (length >= static_cast<int>(usual.size())) {
    text.resize(static_cast<std::size_t>(length) + 1);
    va_start(arguments, format);
    std::vsnprintf(text.data(), text.size(), format, arguments);
    va_end(arguments);
    text.pop_back();
  }
  write(level, module, std::move(text));
}

void LogSink::write(int level, int module, std::string text) {
  writer_->lines->info(format_ == Format::kJson
                           ? logLineJson({timeStamp(), level, moduleName(module), text})
                       : format_ == Format::kJournal ? journalLine(level, module, std::move(text))
                                                     : textLine(level, module, std::move(text)));
}

}  // namespace zanhost
