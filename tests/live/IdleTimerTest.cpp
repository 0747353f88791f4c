// A tracker of its own with the kernel's timer, served by the privileged side in a thread.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <array>
#include <thread>
#include <vector>

#include "ctmgr/ZanIfConnTracker.h"
#include "lab/HotspotNetwork.h"
#include "lab/MobileLink.h"
#include "refhost/CommandServer.h"
#include "refhost/Firewall.h"
#include "refhost/HostSides.h"
#include "tests/live/LiveTest.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

/// The command channel, with the parent's side served by a thread.
class ServedChannel {
 public:
  ServedChannel() {
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends_.data()), 0);
    server_ = std::thread(serve, ends_[0]);
  }
  ~ServedChannel() {
    close(ends_[1]);
    server_.join();
    close(ends_[0]);
  }
  ServedChannel(const ServedChannel&) = delete;
  ServedChannel& operator=(const ServedChannel&) = delete;

  [[nodiscard]] int fd() const { return ends_[1]; }

 private:
  static void serve(int channel);

  std::array<int, 2> ends_{};
  std::thread server_;
};

void ServedChannel::serve(int channel) {
  CommandServer server(channel, [](ZAN_COMMANDS command, const IdleTimerRule& rule) {
    const bool add = command <= ZAN_CMD_IDLETIMER_ADD_2;
    return add ? Firewall().add(rule) : Firewall().remove(rule);
  });
  while (server.serveOne()) {
  }
}

struct Report {
  int status;
  Clock::time_point when;

  static void take(const void* status, void* reports, std::string /*ifaceName*/) {
    static_cast<std::vector<Report>*>(reports)->push_back(
        {*static_cast<const std::uint8_t*>(status), Clock::now()});
  }
};

/// Turns |loop| until |reports| holds |count| of them; false after |limit|.
bool await(EventLoop& loop, const std::vector<Report>& reports, std::size_t count,
           Clock::duration limit) {
  const auto end = Clock::now() + limit;
  while (reports.size() < count && Clock::now() < end) loop.turn(10);
  return reports.size() >= count;
}

/// Everything that happens in the gateway.
void watchTheTimer(const lab::MobileLink& link) {
  constexpr unsigned int kSeconds = 2;
  const ServedChannel channel;
  Zan zan;
  zan.commandChannelFd = channel.fd();
  EventLoop& loop = zan.zanCom.hostSide().loop;
  ZanConnTrackUtils utils(zan);
  ZanIfConnTracker tracker(zan, utils, zan.zanRix, link.name());
  std::vector<Report> reports;
  tracker.regIdleStatusChgEvt(Report::take, &reports);
  tracker.startListenFilterTracking(kSeconds);
  EXPECT_EQ(link.rules(), 4U);
  // The link's own chatter after coming up keeps it busy for a moment.
  ASSERT_TRUE(await(loop, reports, 1, 15s));
  EXPECT_EQ(reports[0].status, 1);
  EXPECT_EQ(link.remainingSeconds(), 0);
  EXPECT_FALSE(await(loop, reports, 2, 1s)) << "idle is reported once";

  for (const auto& [outgoing, family] :
       {std::pair(true, AF_INET), {false, AF_INET}, {true, AF_INET6}, {false, AF_INET6}}) {
    SCOPED_TRACE(std::string(outgoing ? "out" : "in") + (family == AF_INET ? ", 4" : ", 6"));
    outgoing ? link.sendOut(family) : link.sendIn(family);
    EXPECT_GT(link.remainingSeconds(), 0) << "active with the first packet";

    tracker.stopListenFilterTracking();
    tracker.startListenFilterTracking(kSeconds);
    reports.clear();
    EXPECT_FALSE(await(loop, reports, 1, 1s));
    const auto sent = Clock::now();
    outgoing ? link.sendOut(family) : link.sendIn(family);
    ASSERT_TRUE(await(loop, reports, 1, 5s));
    EXPECT_EQ(reports[0].status, 1);
    EXPECT_GT(reports[0].when - sent, std::chrono::seconds(kSeconds) - 500ms);
    EXPECT_LT(reports[0].when - sent, std::chrono::seconds(kSeconds) + 500ms);
  }
  tracker.stopListenFilterTracking();
  EXPECT_EQ(link.rules(), 0U);
  EXPECT_FALSE(link.remainingSeconds());
}

class IdleTimer : public LiveTest {};

TEST_F(IdleTimer, ReportsTheKernelsTimer) {
  const lab::HotspotNetwork network({.clients = 0, .ipv6Only = {}});
  const lab::MobileLink link(network.gateway(), 0);
  link.connect();
  network.gateway().run([&] { watchTheTimer(link); });
}

}  // namespace
