#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "host/EventDispatcher.h"
#include "host/ZanDsmEvents.h"

namespace {

class Dispatcher : public EventDispatcher<ZanDsmEvent> {
 public:
  [[nodiscard]] std::size_t size() const { return registrations.size(); }
  bool takeChanged() {
    const bool was = changed == 1;
    changed = 0;
    return was;
  }
};

constexpr ZanDsmEvent kEvent = ZAN_DSM_EVENT_SAP_CLIENTS;
constexpr ZanDsmEvent kOther = ZAN_DSM_EVENT_TETHERING_STATE;

/// A listener that writes its name down and may do more.
struct Listener {
  std::string name;
  std::vector<std::string>& heard;
  std::function<void()> also = [] {};

  static void callback(ZanDsmEvent event, const void* evtData, void* cbData) {
    auto* self = static_cast<Listener*>(cbData);
    self->heard.push_back(self->name + std::to_string(event) + *static_cast<const char*>(evtData));
    self->also();
  }
};

using Heard = std::vector<std::string>;

TEST(EventDispatcher, CallsTheListenersOfAnEventInOrderOfRegistration) {
  Dispatcher dispatcher;
  Heard heard;
  Listener a{"a", heard};
  Listener b{"b", heard};
  dispatcher.regEventCallback(kEvent, Listener::callback, &b);
  dispatcher.regEventCallback(kOther, Listener::callback, &a);
  dispatcher.regEventCallback(kEvent, Listener::callback, &a);
  EXPECT_TRUE(dispatcher.takeChanged());
  dispatcher.dispatchEvent(kEvent, "!");
  EXPECT_EQ(heard, (Heard{"b27!", "a27!"}));
  EXPECT_FALSE(dispatcher.takeChanged());
}

TEST(EventDispatcher, IgnoresTheRemovalOfAnUnknownListener) {
  Dispatcher dispatcher;
  Heard heard;
  Listener a{"a", heard};
  Listener b{"b", heard};
  dispatcher.regEventCallback(kEvent, Listener::callback, &a);
  EXPECT_TRUE(dispatcher.takeChanged());
  dispatcher.deregEventCallback(kEvent, Listener::callback, &b);
  dispatcher.deregEventCallback(kOther, Listener::callback, &a);
  dispatcher.deregEventCallback(kEvent, nullptr, &a);
  EXPECT_FALSE(dispatcher.takeChanged());
  EXPECT_EQ(dispatcher.size(), 1U);
  dispatcher.deregEventCallback(kEvent, Listener::callback, &a);
  EXPECT_TRUE(dispatcher.takeChanged());
  EXPECT_EQ(dispatcher.size(), 0U);
}

TEST(EventDispatcher, ListenersMayComeAndGoWhileTheyAreCalled) {
  Dispatcher dispatcher;
  Heard heard;
  Listener late{"late", heard};
  Listener removed{"removed", heard};
  Listener first{"first", heard, [&] {
                   dispatcher.deregEventCallback(kEvent, Listener::callback, &first);
                   dispatcher.deregEventCallback(kEvent, Listener::callback, &removed);
                   dispatcher.regEventCallback(kEvent, Listener::callback, &late);
                   dispatcher.takeChanged();
                   EXPECT_EQ(dispatcher.size(), 4U) << "marked, freed after the dispatch";
                 }};
  Listener last{"last", heard};
  for (Listener* listener : {&first, &removed, &last}) {
    dispatcher.regEventCallback(kEvent, Listener::callback, listener);
  }
  dispatcher.dispatchEvent(kEvent, "1");
  EXPECT_EQ(heard, (Heard{"first271", "last271"}));
  EXPECT_EQ(dispatcher.size(), 2U);
  EXPECT_TRUE(dispatcher.takeChanged());

  dispatcher.dispatchEvent(kEvent, "2");
  EXPECT_EQ(heard, (Heard{"first271", "last271", "last272", "late272"}));
}

TEST(EventDispatcher, AnEventRaisedInsideItsOwnDispatchReachesEveryListener) {
  Dispatcher dispatcher;
  Heard heard;
  bool nested = false;
  Listener raiser{"r", heard, [&] {
                    if (std::exchange(nested, true)) return;
                    dispatcher.dispatchEvent(kEvent, "2");
                    dispatcher.deregEventCallback(kEvent, Listener::callback, &raiser);
                  }};
  Listener other{"o", heard};
  dispatcher.regEventCallback(kEvent, Listener::callback, &raiser);
  dispatcher.regEventCallback(kEvent, Listener::callback, &other);
  dispatcher.dispatchEvent(kEvent, "1");
  EXPECT_EQ(heard, (Heard{"r271", "r272", "o272", "o271"}));
  EXPECT_EQ(dispatcher.size(), 1U);
}

}  // namespace
