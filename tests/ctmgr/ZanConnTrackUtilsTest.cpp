// The registry of conntrack event listeners, which this build keeps switched off.
#include <gmock/gmock.h>
#include <linux/rtnetlink.h>

#include "ctmgr/ZanConnTrackUtils.h"
#include "tests/RecordingHost.h"

namespace {

using testing::SizeIs;

/// A registry that is up as if conntrack events were switched on.
struct Registry : ZanConnTrackUtils {
  explicit Registry(Zan& zan) : ZanConnTrackUtils(zan) {
    nlSocket = new ZanNetlinkSocket(NETLINK_NETFILTER, 0);
    nlSockRegistered = true;
    com.addComEventHandler(nlSocket->socketFd, netLinkEventHandler, this, nullptr, 1);
  }
  using ZanConnTrackUtils::listeners;
};

/// A listener that counts its calls and leaves; |data| is the registry.
int calls = 0;
void leave(void* data, nlmsghdr* /*msg*/, unsigned int /*len*/) {
  ++calls;
  static_cast<Registry*>(data)->deRegNlSockEvents(leave, data);
}

TEST(ZanConnTrackUtilsTest, ListenersMayLeaveWhileTheyAreCalledAndTheLastTakesTheSocketAlong) {
  RecordingHost host;
  Registry registry(host.zan);
  registry.listeners = {{leave, &registry}, {leave, &registry}};
  EXPECT_EQ(registry.deRegNlSockEvents(leave, &host), 0) << "another's data: nobody leaves";
  calls = 0;
  host.receive(kConntrackSocket, neighbourMessage(RTM_NEWNEIGH, "10.0.0.1", {}));
  EXPECT_EQ(calls, 2);
  EXPECT_THAT(host.calls("~ZanNetlinkSocket 1012"), SizeIs(1));
}

}  // namespace
