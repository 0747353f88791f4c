// A plug-in library and its two entry points.
#pragma once

#include <string>

#include "host/Zan.h"

/// Thread: event thread.
class Plugin {
 public:
  /// Loads |path|. On failure loaded() is false and error() says why and what would help.
  explicit Plugin(const std::string& path);

  /// Unloads the library; stop() must have been called after a start().
  ~Plugin();
  Plugin(const Plugin&) = delete;
  Plugin& operator=(const Plugin&) = delete;

  [[nodiscard]] bool loaded() const { return init != nullptr && deinit != nullptr; }
  [[nodiscard]] const std::string& error() const { return failure; }

  /// The plug-in's own results: 0, or -1.
  [[nodiscard]] int start(Zan& host) { return init(&host); }
  int stop() { return deinit(); }

 private:
  using Init = int (*)(Zan*);
  using Deinit = int (*)();

  void* library;
  Init init = nullptr;
  Deinit deinit = nullptr;
  std::string failure;
};
