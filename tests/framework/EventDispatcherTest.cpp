// Listeners that come, go and raise events while they are called.
#include <gmock/gmock.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "host/EventDispatcher.h"
#include "host/ZanDsmEvents.h"

namespace framework {
namespace {

using testing::ElementsAre;

constexpr ZanDsmEvent kEvent = ZAN_DSM_EVENT_SAP_CLIENTS;
constexpr ZanDsmEvent kOther = ZAN_DSM_EVENT_TETHERING_STATE;

class Dispatcher : public EventDispatcher<ZanDsmEvent> {
 public:
  /// A listener that writes down its name and what it is told, and may do more.
  struct Listener {
    Dispatcher& dispatcher;
    std::string name;
    std::function<void()> also = [] {};
  };

  void add(Listener& listener, ZanDsmEvent event = kEvent) {
    regEventCallback(event, called, &listener);
  }
  void remove(Listener& listener, ZanDsmEvent event = kEvent) {
    deregEventCallback(event, called, &listener);
  }
  [[nodiscard]] std::size_t size() const { return registrations.size(); }
  bool takeChanged() { return std::exchange(changed, 0) == 1; }

  std::vector<std::string> heard;

 private:
  static void called(ZanDsmEvent event, const void* evtData, void* cbData) {
    auto* self = static_cast<Listener*>(cbData);
    self->dispatcher.heard.push_back(self->name + std::to_string(event) +
                                     static_cast<const char*>(evtData));
    self->also();
  }
};

struct EventDispatcherTest : testing::Test {
  Dispatcher dispatcher;
  Dispatcher::Listener a{dispatcher, "a"};
  Dispatcher::Listener b{dispatcher, "b"};
  Dispatcher::Listener c{dispatcher, "c"};
};

TEST_F(EventDispatcherTest, CallsTheListenersOfAnEventInOrderOfRegistration) {
  dispatcher.add(b);
  dispatcher.add(a, kOther);
  dispatcher.add(a);
  EXPECT_TRUE(dispatcher.takeChanged());
  dispatcher.dispatchEvent(kEvent, "!");
  EXPECT_THAT(dispatcher.heard, ElementsAre("b27!", "a27!"));
  dispatcher.remove(c);
  dispatcher.remove(b, kOther);
  dispatcher.deregEventCallback(kEvent, nullptr, &a);
  EXPECT_FALSE(dispatcher.takeChanged()) << "nobody came, and nobody known went";
  dispatcher.remove(a);
  EXPECT_TRUE(dispatcher.takeChanged());
  EXPECT_EQ(dispatcher.size(), 2U);
}

TEST_F(EventDispatcherTest, ListenersMayComeAndGoWhileTheyAreCalled) {
  Dispatcher::Listener late{dispatcher, "late"};
  a.also = [&] {
    dispatcher.remove(a);
    dispatcher.remove(b);
    dispatcher.add(late);
    dispatcher.takeChanged();
    EXPECT_EQ(dispatcher.size(), 4U) << "marked, freed after the dispatch";
  };
  for (auto* listener : {&a, &b, &c}) dispatcher.add(*listener);
  dispatcher.dispatchEvent(kEvent, "1");
  EXPECT_EQ(dispatcher.size(), 2U);
  EXPECT_TRUE(dispatcher.takeChanged());
  dispatcher.dispatchEvent(kEvent, "2");
  EXPECT_THAT(dispatcher.heard, ElementsAre("a271", "c271", "c272", "late272"));
}

TEST_F(EventDispatcherTest, AnEventRaisedInsideItsOwnDispatchReachesEveryListener) {
  a.also = [&] {
    if (dispatcher.heard.size() > 1) return;  // told from inside
    dispatcher.dispatchEvent(kEvent, "2");
    dispatcher.remove(a);
  };
  dispatcher.add(a);
  dispatcher.add(b);
  dispatcher.dispatchEvent(kEvent, "1");
  EXPECT_THAT(dispatcher.heard, ElementsAre("a271", "a272", "b272", "b271"));
  EXPECT_EQ(dispatcher.size(), 1U);
}

}  // namespace
}  // namespace framework
