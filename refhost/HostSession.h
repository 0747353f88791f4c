// One run of the reference host: the host object and the commands that act on it.
#pragma once

#include <string>

#include "host/Zan.h"
#include "refhost/Command.h"

/// Thread: event thread.
class HostSession {
 public:
  /// Answers of commands go to the descriptor |answers|, one line each (help and plain status:
  /// several). One that nobody takes for a second is dropped, with a log line.
  explicit HostSession(int answers) : output_(answers) {}

  /// The object that the plug-in is started with.
  [[nodiscard]] Zan& host() { return zan_; }

  void execute(const Command& command);

 private:
  void carryOut(const ClientsCommand& command);
  void carryOut(const UpstreamLostCommand& command);
  void carryOut(const StatusCommand& command);
  void carryOut(const WaitCommand& command);
  void carryOut(const HelpCommand& command);
  void carryOut(const QuitCommand& command);
  void answer(const std::string& text);

  int output_;
  Zan zan_;
};
