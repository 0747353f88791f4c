// The reference host's event loop: epoll(7) over registered descriptors.
#pragma once

#include <cstdint>
#include <map>

#include "base/UniqueFd.h"

namespace framework {

/// A descriptor that is closed, by whomever, is watched no longer: the kernel forgets it, unless a
/// duplicate is still open. A file that epoll(7) does not take, such as one on a disk, counts as
/// ready always.
///
/// Thread: one, the event thread, for every call and every handler.
class EventLoop {
 public:
  using Handler = void (*)(int fd, void* cbData);

  EventLoop();

  /// See ZanCom::addComEventHandler().
  int watch(int fd, Handler ready, void* cbData, Handler second, unsigned int events);
  int unwatch(int fd);

  /// Waits once, for at most |timeoutMs| milliseconds (-1: until something happens), and runs the
  /// handlers of what is ready. Handlers may watch and unwatch whatever they like; a descriptor
  /// that is unwatched, or watched anew, meanwhile is not reported any more in this turn.
  void turn(int timeoutMs);

  /// Turns until stop() is called, from a handler.
  void run();
  void stop() { stopped_ = true; }

 private:
  struct Watch {
    Handler ready;
    void* cbData;
    Handler second;
    unsigned int events;
    std::uint64_t tag;  ///< the descriptor, and above it what tells this registration from others
    bool alwaysReady;
  };

  void report(std::uint64_t tag, unsigned int happened);

  base::UniqueFd epoll_;
  std::map<int, Watch> watches_;
  std::uint64_t registrations_ = 0;
  bool stopped_ = false;
};

}  // namespace framework
