// The framework's event loop over file descriptors.
#pragma once

#include <memory>

/// Thread: both calls are made on the event thread, which also runs every handler.
class ZanCom {
 public:
  ZanCom();
  ~ZanCom();
  ZanCom(const ZanCom&) = delete;
  ZanCom& operator=(const ZanCom&) = delete;

  /// Watches |fd| for |events|, a poll(2) event mask (1 = POLLIN, 10 = POLLPRI | POLLERR), and
  /// calls |ready| with the descriptor and |cbData| whenever one of them is reported. |second|
  /// may be null; where it is given it receives errors and hang-ups that |events| does not ask
  /// for, which |ready| gets otherwise. The descriptor stays the caller's. Watching a descriptor
  /// again replaces its handler. Returns 0, or -1 with errno set.
  int addComEventHandler(int fd, void (*ready)(int fd, void* cbData), void* cbData,
                         void (*second)(int fd, void* cbData), unsigned int events);

  /// Stops watching |fd|; allowed at any time, also from inside the handler of that very
  /// descriptor. Returns 0, or -1 when it was not watched.
  int removeComEventHandler(int fd);

 private:
  friend struct HostSides;
  struct HostSide;  ///< the loop itself, which only the framework drives
  std::unique_ptr<HostSide> side;
};
