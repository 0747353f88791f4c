// Which handler hears of which descriptor, and when no more.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <array>
#include <functional>

#include "base/UniqueFd.h"
#include "refhost/framework/EventLoop.h"

namespace framework {
namespace {

void countCall(int /*fd*/, void* cbData) {
  ++*static_cast<int*>(cbData);
}

/// A descriptor that is readable, and watched.
struct Watched {
  explicit Watched(EventLoop& loop) { loop.watch(fd.get(), called, this, nullptr, POLLIN); }

  static void called(int /*fd*/, void* cbData) {
    auto* self = static_cast<Watched*>(cbData);
    ++self->calls;
    self->whenCalled();
  }

  base::UniqueFd fd{eventfd(1, EFD_CLOEXEC)};
  int calls = 0;
  std::function<void()> whenCalled = [] {};
};

TEST(EventLoop, AHandlerMayRemoveAndReplaceOthersThatAreReady) {
  EventLoop loop;
  Watched first(loop);
  Watched removed(loop);
  Watched replaced(loop);
  int callsOfSuccessor = 0;
  first.whenCalled = [&] {
    loop.unwatch(first.fd.get());
    loop.unwatch(removed.fd.get());
    loop.watch(replaced.fd.get(), countCall, &callsOfSuccessor, nullptr, POLLIN);
  };
  loop.turn(0);
  EXPECT_EQ(callsOfSuccessor, 0) << "it is heard from the next turn on";
  loop.turn(0);
  EXPECT_EQ(callsOfSuccessor, 1);
  EXPECT_EQ(first.calls, 1);
  EXPECT_EQ(removed.calls, 0);
  EXPECT_EQ(replaced.calls, 0);
}

TEST(EventLoop, AClosedDescriptorIsForgottenWhoeverUsesItsNumberNext) {
  EventLoop loop;
  Watched closed(loop);
  const int number = closed.fd.get();
  closed.fd.reset();
  const base::UniqueFd successor(eventfd(1, EFD_CLOEXEC));
  ASSERT_EQ(successor.get(), number);
  loop.turn(0);
  EXPECT_EQ(closed.calls, 0);
}

TEST(EventLoop, AHangUpGoesToTheSecondHandler) {
  EventLoop loop;
  std::array<int, 2> ends{};
  ASSERT_EQ(pipe(ends.data()), 0);
  const base::UniqueFd reading(ends[0]);
  close(ends[1]);
  int hangUps = 0;
  const auto readable = [](int, void*) { ADD_FAILURE() << "there is nothing to read"; };
  loop.watch(reading.get(), readable, &hangUps, countCall, POLLIN);
  loop.turn(0);
  EXPECT_EQ(hangUps, 1);
}

}  // namespace
}  // namespace framework
