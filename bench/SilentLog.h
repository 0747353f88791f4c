// A log object that drops every line.
#pragma once

#include "host/ZanMsg.h"

namespace bench {

/// The process's log object while it lives.
class SilentLog final : public ZanMsg {
 public:
  SilentLog() { zan_log_class_ptr = this; }
  ~SilentLog() { zan_log_class_ptr = nullptr; }
  SilentLog(const SilentLog&) = delete;
  SilentLog& operator=(const SilentLog&) = delete;

  void setThreshold(int /*level*/) override {}
  [[nodiscard]] bool enabled(int /*level*/) const override { return false; }
  [[gnu::format(printf, 4, 5)]] void log(int /*level*/, int /*module*/, const char* /*format*/,
                                         ...) override {}
};

}  // namespace bench
