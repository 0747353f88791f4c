// The reference host's log object: lines to a stream, as text, as JSON or for the journal.
#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <string>

#include "host/ZanMsg.h"

namespace zanhost {

/// Formats each line on the calling thread and leaves it to a thread of its own for writing, so
/// that a slow reader of the stream never blocks the caller. When the reader falls behind by more
/// than kQueueLength lines, the oldest are dropped and their number is reported at the end.
///
///   text   2026-11-21T05:50:33.123456Z 2 CT_MGR ZanConnTrackMgr::No change in sap clients
///   json   {"time":"2026-11-21T05:50:33.123456Z","level":2,"module":"CT_MGR","text":"..."}
///   journal  <5>CT_MGR ZanConnTrackMgr::No change in sap clients
///
/// The number in a line for the journal is a priority of syslog(3), as sd-daemon(3) tells.
///
/// Thread: log() any; the rest the thread that owns the sink.
class LogSink final : public ZanMsg {
 public:
  enum class Format { kText, kJson, kJournal };

  static constexpr std::size_t kQueueLength = 8192;

  /// Becomes the process's log object. |fd| stays the caller's.
  LogSink(int fd, Format format, int threshold);

  /// finish(), and leaves the process without a log object.
  ~LogSink();

  /// Writes what is left, unless the reader stands still; lines that come later are dropped. Ends
  /// the use of an object that must live as long as the process, since threads that nobody waits
  /// for may still log.
  void finish();

  void setThreshold(int level) override { threshold_ = level; }
  [[nodiscard]] bool enabled(int level) const override { return level >= threshold_; }
  [[gnu::format(printf, 4, 5)]] void log(int level, int module, const char* format, ...) override;

 private:
  struct Writer;

  void write(int level, int module, std::string text);

  Format format_;
  std::atomic<int> threshold_;
  std::atomic<bool> finished_{false};
  std::unique_ptr<Writer> writer_;
};

}  // namespace zanhost
