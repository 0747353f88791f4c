#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <functional>

#include "host/ZanCom.h"
#include "refhost/EventLoop.h"
#include "refhost/HostSides.h"
#include "refhost/UniqueFd.h"

namespace {

/// A connected pair: what is written to |far| makes |near| readable.
struct Pair {
  Pair() {
    std::array<int, 2> ends{};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
    near = UniqueFd(ends[0]);
    far = UniqueFd(ends[1]);
  }
  void poke() const { EXPECT_EQ(write(far.get(), "x", 1), 1); }

  UniqueFd near;
  UniqueFd far;
};

/// A handler that counts its calls and may do more.
struct Counter {
  int calls = 0;
  std::function<void()> also;

  static void called(int /*fd*/, void* cbData) {
    auto* self = static_cast<Counter*>(cbData);
    ++self->calls;
    if (self->also) self->also();
  }
};

TEST(EventLoop, ReportsOnlyWhatTheMaskAsksFor) {
  EventLoop loop;
  Pair pair;
  Counter readable;
  Counter urgent;
  ASSERT_EQ(loop.watch(pair.near.get(), Counter::called, &readable, nullptr, POLLIN), 0);
  ASSERT_EQ(loop.watch(pair.far.get(), Counter::called, &urgent, nullptr, POLLPRI | POLLERR), 0);
  loop.turn(0);
  EXPECT_EQ(readable.calls, 0);
  pair.poke();
  EXPECT_EQ(write(pair.near.get(), "y", 1), 1);
  loop.turn(0);
  EXPECT_EQ(readable.calls, 1);
  EXPECT_EQ(urgent.calls, 0) << "readable, but only POLLPRI | POLLERR were asked for";
}

TEST(EventLoop, HangUpGoesToTheSecondHandlerIfThereIsOne) {
  for (const bool withSecond : {true, false}) {
    EventLoop loop;
    Pair pair;
    Counter ready;
    loop.watch(pair.near.get(), Counter::called, &ready, withSecond ? [](int fd, void* cbData) {
      Counter::called(fd, cbData);
      static_cast<Counter*>(cbData)->calls += 100;
    } : EventLoop::Handler{nullptr}, POLLPRI);
    pair.far = UniqueFd();
    loop.turn(0);
    EXPECT_EQ(ready.calls, withSecond ? 101 : 1);
  }
}

TEST(EventLoop, HandlersMayRemoveAndReplaceEachOtherWhileTheyRun) {
  EventLoop loop;
  std::array<Pair, 3> pairs;
  std::array<Counter, 3> counters;
  Counter replacement;
  for (std::size_t i = 0; i < pairs.size(); ++i) {
    loop.watch(pairs[i].near.get(), Counter::called, &counters[i], nullptr, POLLIN);
    pairs[i].poke();
  }
  // Descriptors are served in ascending order, which is the order of the pairs.
  ASSERT_LT(pairs[0].near.get(), pairs[1].near.get());
  ASSERT_LT(pairs[1].near.get(), pairs[2].near.get());
  counters[0].also = [&] {
    EXPECT_EQ(loop.unwatch(pairs[0].near.get()), 0);
    EXPECT_EQ(loop.unwatch(pairs[1].near.get()), 0);
    loop.watch(pairs[2].near.get(), Counter::called, &replacement, nullptr, POLLIN);
  };
  loop.turn(0);
  EXPECT_EQ(counters[0].calls, 1);
  EXPECT_EQ(counters[1].calls, 0) << "removed before its turn";
  EXPECT_EQ(counters[2].calls, 0) << "replaced before its turn";
  EXPECT_EQ(replacement.calls, 0) << "new: reported from the next turn on";
  loop.turn(0);
  EXPECT_EQ(counters[0].calls, 1);
  EXPECT_EQ(replacement.calls, 1);
}

TEST(EventLoop, SurvivesADescriptorThatIsClosedUnderIt) {
  EventLoop loop;
  Counter lost;
  {
    const Pair pair;
    loop.watch(pair.near.get(), Counter::called, &lost, nullptr, POLLIN);
  }
  loop.turn(0);
  loop.turn(0);
  EXPECT_EQ(lost.calls, 0);
}

TEST(EventLoop, ForgetsADescriptorWhoseOwnerClosesIt) {
  EventLoop loop;
  Counter stale;
  int number = -1;
  {
    const Pair pair;
    number = pair.near.get();
    loop.watch(number, Counter::called, &stale, nullptr, POLLIN);
    EventLoop::descriptorClosing(number);
  }
  const Pair successor;
  ASSERT_EQ(successor.near.get(), number) << "the number is in use again";
  successor.poke();
  loop.turn(0);
  EXPECT_EQ(stale.calls, 0);
}

TEST(EventLoop, RefusesWhatCannotBeWatched) {
  ZanCom com;
  EXPECT_EQ(com.addComEventHandler(-1, Counter::called, nullptr, nullptr, POLLIN), -1);
  EXPECT_EQ(com.addComEventHandler(0, nullptr, nullptr, nullptr, POLLIN), -1);
  EXPECT_EQ(com.removeComEventHandler(0), -1);
  EXPECT_EQ(com.removeComEventHandler(-1), -1);
}

}  // namespace
