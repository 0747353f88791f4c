// Which handler hears of which descriptor, and when no more.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <functional>

#include "base/UniqueFd.h"
#include "refhost/framework/EventLoop.h"

namespace framework {
namespace {

/// One end of a connected pair, watched by a handler that counts its calls and may do more.
struct Watched {
  Watched() {
    std::array<int, 2> ends{};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
    near = base::UniqueFd(ends[0]);
    far = base::UniqueFd(ends[1]);
  }
  void watchIn(EventLoop& loop, unsigned int events, EventLoop::Handler second = nullptr) {
    EXPECT_EQ(loop.watch(near.get(), called, this, second, events), 0);
  }
  void poke() const { EXPECT_EQ(write(far.get(), "x", 1), 1); }

  static void called(int /*fd*/, void* cbData) {
    auto* self = static_cast<Watched*>(cbData);
    ++self->calls;
    self->also();
  }

  base::UniqueFd near;
  base::UniqueFd far;
  int calls = 0;
  std::function<void()> also = [] {};
};

TEST(EventLoop, ReportsWhatTheMaskAsksForAndAHangUpToTheSecondHandlerIfThereIsOne) {
  for (const bool withSecond : {true, false}) {
    EventLoop loop;
    Watched readable;
    Watched urgent;
    readable.watchIn(loop, POLLIN);
    urgent.watchIn(loop, POLLPRI,
                   withSecond
                       ? [](int, void* cbData) { static_cast<Watched*>(cbData)->calls += 100; }
                       : EventLoop::Handler{nullptr});
    loop.turn(0);
    EXPECT_EQ(readable.calls, 0);
    readable.poke();
    urgent.poke();
    loop.turn(0);
    EXPECT_EQ(readable.calls, 1);
    EXPECT_EQ(urgent.calls, 0) << "readable, but only POLLPRI was asked for";
    urgent.far.reset();
    loop.turn(0);
    EXPECT_EQ(urgent.calls, withSecond ? 100 : 1);
  }
}

TEST(EventLoop, HandlersMayRemoveAndReplaceEachOtherWhileTheyRun) {
  EventLoop loop;
  std::array<Watched, 3> watched;
  Watched replacement;
  for (Watched& each : watched) {
    each.watchIn(loop, POLLIN);
    each.poke();
  }
  watched[0].also = [&] {
    EXPECT_EQ(loop.unwatch(watched[0].near.get()), 0);
    EXPECT_EQ(loop.unwatch(watched[1].near.get()), 0);
    loop.watch(watched[2].near.get(), Watched::called, &replacement, nullptr, POLLIN);
  };
  loop.turn(0);
  EXPECT_EQ(watched[1].calls, 0) << "removed before its turn";
  EXPECT_EQ(replacement.calls, 0) << "new: reported from the next turn on";
  loop.turn(0);
  EXPECT_EQ(watched[0].calls, 1);
  EXPECT_EQ(watched[2].calls, 0) << "replaced before its turn";
  EXPECT_EQ(replacement.calls, 1);
}

TEST(EventLoop, DropsADescriptorThatIsClosedWhoeverUsesItsNumberNext) {
  EventLoop loop;
  Watched closed;
  closed.watchIn(loop, POLLIN);
  const int number = closed.near.get();
  closed.near.reset();
  Watched successor;
  ASSERT_EQ(successor.near.get(), number) << "the number is in use again";
  successor.poke();
  loop.turn(0);
  EXPECT_EQ(closed.calls, 0);
  successor.watchIn(loop, POLLIN);
  loop.turn(0);
  EXPECT_EQ(successor.calls, 1);
}

TEST(EventLoop, ReportsAFileThatIsReadyAlwaysInEveryTurn) {
  EventLoop loop;
  Watched file;
  file.near.reset(memfd_create("commands", MFD_CLOEXEC));
  file.watchIn(loop, POLLIN);
  loop.turn(-1);
  loop.turn(-1);
  EXPECT_EQ(file.calls, 2);
  EXPECT_EQ(loop.unwatch(file.near.get()), 0);
  loop.turn(0);
  EXPECT_EQ(file.calls, 2);
}

TEST(EventLoop, RefusesWhatCannotBeWatched) {
  EventLoop loop;
  EXPECT_EQ(loop.watch(-1, Watched::called, nullptr, nullptr, POLLIN), -1);
  EXPECT_EQ(loop.watch(0, nullptr, nullptr, nullptr, POLLIN), -1);
  EXPECT_EQ(loop.unwatch(0), -1);
}

}  // namespace
}  // namespace framework
