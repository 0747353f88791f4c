// A plug-in library and its two entry points.
#pragma once

#include <string>

#include "host/Zan.h"

namespace zanhost {

/// Thread: event thread.
class Plugin {
 public:
  /// Loads |path|. On failure loaded() is false and error() says why and what would help.
  explicit Plugin(const std::string& path);

  /// Unloads the library; stop() must have been called after a start().
  ~Plugin();
  Plugin(const Plugin&) = delete;
  Plugin& operator=(const Plugin&) = delete;

  [[nodiscard]] bool loaded() const { return init_ != nullptr && deinit_ != nullptr; }
  [[nodiscard]] const std::string& error() const { return failure_; }

  /// The plug-in's own results: 0, or -1.
  [[nodiscard]] int start(Zan& host) { return init_(&host); }
  int stop() { return deinit_(); }

 private:
  using Init = int (*)(Zan*);
  using Deinit = int (*)();

  void* library_;
  Init init_ = nullptr;
  Deinit deinit_ = nullptr;
  std::string failure_;
};

}  // namespace zanhost
