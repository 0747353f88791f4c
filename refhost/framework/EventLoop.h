// The reference host's event loop: poll(2) over registered descriptors.
#pragma once

#include <cstdint>
#include <map>

namespace framework {

/// Thread: one, the event thread, for every call and every handler.
class EventLoop {
 public:
  using Handler = void (*)(int fd, void* cbData);

  EventLoop();
  ~EventLoop();
  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;

  /// See ZanCom::addComEventHandler().
  int watch(int fd, Handler ready, void* cbData, Handler second, unsigned int events);
  int unwatch(int fd);

  /// Polls once, for at most |timeoutMs| milliseconds (-1: until something happens), and runs the
  /// handlers of what is ready. Handlers may watch and unwatch whatever they like; a descriptor
  /// that is unwatched, or watched anew, meanwhile is not reported any more in this turn.
  void turn(int timeoutMs);

  /// Turns until stop() is called, from a handler.
  void run();
  void stop() { stopped_ = true; }

  /// Ends every loop's interest in |fd|, which its owner is about to close: the number may soon
  /// belong to somebody else.
  static void descriptorClosing(int fd);

 private:
  struct Watch {
    Handler ready;
    void* cbData;
    Handler second;
    short events;
    std::uint64_t generation;  ///< tells a registration from a later one of the same descriptor
  };

  void report(int fd, std::uint64_t generation, short happened);

  std::map<int, Watch> watches_;
  std::uint64_t generations_ = 0;
  bool stopped_ = false;
};

}  // namespace framework
