// What becomes of the host when its privileged parent process has gone.
#pragma once

#include <functional>

#include "refhost/framework/EventLoop.h"

namespace zanhost {

/// Without its parent the host goes on, though idle timers fail, for as long as there are commands
/// or somebody can still give some.
///
/// Thread: event thread.
class ParentWatch {
 public:
  /// Watches the command channel |channel|, which stays the caller's; |nobodyLeft| tells whether
  /// no command is left or can come. |loop| must outlive the object.
  ParentWatch(framework::EventLoop& loop, int channel, std::function<bool()> nobodyLeft);
  ~ParentWatch();
  ParentWatch(const ParentWatch&) = delete;
  ParentWatch& operator=(const ParentWatch&) = delete;

  /// To be called when |nobodyLeft| may have become true.
  void stopIfAlone();

 private:
  static void channelHungUp(int fd, void* cbData);

  framework::EventLoop& loop_;
  int channel_;
  std::function<bool()> nobodyLeft_;
  bool gone_ = false;
};

}  // namespace zanhost
