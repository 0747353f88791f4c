// Feeds commands, one a line, to whoever carries them out.
#pragma once

#include <deque>
#include <functional>
#include <string>

#include "refhost/framework/EventLoop.h"
#include "refhost/zanhost/Command.h"
#include "refhost/zanhost/Timer.h"

namespace zanhost {

/// Takes lines from a descriptor or from a script. Commands are carried out on the event loop, in
/// order, one a turn; a wait holds those behind it back. A wrong line is reported through
/// |refuse| and changes nothing. While kMostPending lines wait, nothing more is read.
///
/// Thread: event thread.
class CommandConsole {
 public:
  using Execute = std::function<void(const Command&)>;
  using Refuse = std::function<void(const std::string&)>;

  static constexpr std::size_t kMostPending = 256;
  static constexpr std::size_t kLongestLine = 65536;

  CommandConsole(framework::EventLoop& eventLoop, Execute execute, Refuse refuse);
  ~CommandConsole();
  CommandConsole(const CommandConsole&) = delete;
  CommandConsole& operator=(const CommandConsole&) = delete;

  /// Reads |fd|, which stays the caller's, until its end.
  void readFrom(int fd);

  /// Whether everything has been carried out and no more can come.
  [[nodiscard]] bool finished() const { return input_ == -1 && lines_.empty() && !scheduled_; }

  /// Calls |callback| when that has become true.
  void whenFinished(std::function<void()> callback) { whenFinished_ = std::move(callback); }

  /// Appends |line| to what is to be carried out.
  void add(const std::string& line);

 private:
  static void inputReady(int fd, void* cbData);

  /// The timer starts the next command: at once, or after |delay|.
  void schedule(std::chrono::milliseconds delay);
  void carryOutNext();
  void split();

  framework::EventLoop& loop_;
  Execute execute_;
  Refuse refuse_;
  Timer timer_;
  std::deque<std::string> lines_;
  std::string unfinished_;  ///< what was read behind the last newline
  int input_ = -1;
  std::function<void()> whenFinished_ = [] {};
  bool paused_ = false;      ///< nothing is read, because enough lines wait
  bool discarding_ = false;  ///< the rest of a line that is too long
  bool scheduled_ = false;
};

}  // namespace zanhost
