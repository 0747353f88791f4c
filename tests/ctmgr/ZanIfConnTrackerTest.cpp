// The tracker of one interface: what it does, sends and logs, in one sequence.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstring>
#include <regex>
#include <thread>
#include <tuple>

#include "ctmgr/ZanIfConnTracker.h"
#include "tests/RecordingHost.h"

namespace {

using namespace std::string_literals;
using std::to_string;

const std::string kText = "w9 7 first " + std::string(69, 's');
const std::string kUninstalled = "uninstallFilters w9\nsetDfsFilterMode w9 0\n";

struct Utils : ZanConnTrackUtils {
  explicit Utils(Zan& zan) : ZanConnTrackUtils(zan) { connTrackFd = 901; }
  using ZanConnTrackUtils::connTrackFd;
};
struct Tracker : ZanIfConnTracker {
  using ZanIfConnTracker::idleTimeOut;
  using ZanIfConnTracker::idleTimerFd;
  using ZanIfConnTracker::ZanIfConnTracker;
};

/// In expected records '~' stands for the module and the class.
struct ZanIfConnTrackerTest : testing::Test {
  RecordingHost host;
  Utils utils{host.zan};
  std::unique_ptr<Tracker> tracker;

  void SetUp() override {
    host.property = "3";
    host.wwan["w9"] = {0, 0, 7, 0, {}, "first"};
    std::memset(host.wwan["w9"].text + 62, 's', 69);  // to its end, without a NUL
    host.connectParent();
    host.take();
    tracker = std::make_unique<Tracker>(host.zan, utils, host.zan.zanRix, "w9");
  }
  std::string said() {
    return std::regex_replace(host.take(), std::regex("10409 ZanIfConnTracker::"), "~");
  }
  /// What the parent is sent for |commands| commands from |first| on.
  static std::string rules(int first, int timeout, int commands = 2) {
    std::string text = "parent";
    for (int command = first; command < first + commands; ++command) {
      text += " " + to_string(command) + " w9\0 "s + to_string(timeout) + " CT\0 IDLETIMER\0 0"s;
    }
    return text + "\n";
  }
  static std::string stopped(int timeout) {
    return "0 ~stopTracking\n0 ~removeComEventHandler fd -1\nremoveComEventHandler -1\n" +
           rules(10, timeout);
  }
  /// A start that ends at the timer's file, which nobody has created.
  static std::string started(int timeout) {
    return "0 ~startTracking " + to_string(timeout) + "\n0 ~runIpTableAddCommands\n" +
           rules(8, timeout) + "2 ~startTracking file open fail = 2\n" + stopped(timeout);
  }
};

TEST_F(ZanIfConnTrackerTest, ComesAndGoesInOrder) {
  Tracker::rixWdsEventHandler({}, nullptr, nullptr);
  Tracker::rixDfsEventHandler(ZanRixDfsEventType{4}, this, tracker.get());
  tracker.reset();
  host.zan.zanDsm.dispatchEvent(ZAN_DSM_EVENT_TETHERING_STATE, this);
  EXPECT_EQ(said(), R"(
0 ~ZanIfConnTracker(Zan &, ZanConnTrackUtils &, ZanRix &, string):84
regDormancyStatusChgEvent w9
regFilteringStatusChgEvent w9
property_get persist.vendor.zan.vndr.ctmgr.disable.icmp 0
3 10409 Incorrect info passed evtData:0x0 cbData:0x0
0 ~rixDfsEventHandler event: 4
1 10409 unhandled event:4
0 ~~ZanIfConnTracker():120
)" + kUninstalled + stopped(0) +
                        "deRegDormancyStatusChgEvent w9 1\ndeRegFilteringStatusChgEvent w9 1\n");
}

TEST_F(ZanIfConnTrackerTest, FollowsDormancyFilteringAndTethering) {
  const std::string on = "0 10409 uninstalled Filters after tethering ON\n";
  const std::string off = "0 10409 installFilters after tethering off ret: ";
  const std::string after = "0 10409 after installFilters ret: ";
  const std::string link = "getDormancyStatus w9\n";
  const std::string dereg = "deRegDormancyStatusChgEvent w9 1\n";
  const std::string asked =
      "4 ~installFilters Entering\ngetWwanInfo w9\n4 ~installFilters Entering w9 7 first\n"
      "installFilters " +
      kText + " 3 901\n";
  const std::string refused = asked + "4 ~installFilters: Failed to add filters for iface w9\n";
  const std::string installed = asked + "setDfsFilterMode w9 1\n" + started(5);
  // Event, its interface and status; state of tethering and of the link; the modem's answer; log.
  const std::tuple<std::string, std::string, std::int32_t, int, int, std::string> steps[] = {
      {"Wds", "w", 1, 0, 1, ""},
      {"Wds", "w9", 2, 0, 1, ""},
      {"Wds", "w9", 1, -1, 1, ""},
      {"Wds", "w9", 1, 0, -7, refused + after + "-7\n"},
      {"Wds", "w9", 1, 0, 0, refused + dereg + after + "0\n"},
      {"Dsm", "", 1, 2, 1, link},
      {"Dsm", "", 1, 1, 1, link + kUninstalled + stopped(0) + on},
      {"Wds", "w9", 1, 0, 1, "0 10409 No change in dormancy status\n"},
      {"Dfs", "w9", 2, 0, 1, ""},
      {"Dfs", "w9", 1, 1, 1, "regDormancyStatusChgEvent w9\n" + kUninstalled + stopped(0)},
      {"Dsm", "", 2, 1, 1, ""},
      {"Dsm", "", 0, 1, 3, link + refused + off + "3\n"},
      {"Dsm", "", 0, 1, 1, link + installed + dereg + off + "0\n"},
      {"Wds", "w9", 1, 0, 1, installed + dereg + after + "0\n"}};
  host.take();
  for (const auto& [event, name, status, state, answer, log] : steps) {
    const ZanRixStatusRecord record{name, status};
    host.filtersAnswer = answer;
    host.zan.zanDsm.tetheringIndicator = host.dormancyStatus = state;
    if (event == "Wds") host.dormancyListener.first({}, &record, host.dormancyListener.second);
    if (event == "Dfs") host.filteringListener.first({}, &record, host.filteringListener.second);
    if (event == "Dsm") host.zan.zanDsm.dispatchEvent(ZAN_DSM_EVENT_TETHERING_STATE, &status);
    const std::string handler = "0 ~rix" + event + "EventHandler ";
    std::string heard = handler + "event: 0\n";
    heard.append(handler).append("iface: " + name + " status: " + to_string(status) + "\n");
    EXPECT_EQ(said(), "\n" + (event == "Dsm" ? "1 ~dsmEventHandler event:5\n" : heard) + log);
  }
}

TEST_F(ZanIfConnTrackerTest, EndsAStartAtTheFirstRefusal) {
  const std::string failed =
      "4 10409 ZanIfConnTracker parent process failed to execute command\n\n";
  const std::pair<const char*, std::string> cases[] = {
      {"-", "parent 8\n4 10409 send_and_recv_ack ret corrupted\n"},
      {".....1", rules(8, 6, 1) + failed},
      {"...........1", rules(8, 6) + failed}};
  host.take();
  for (const auto& [answers, log] : cases) {
    host.connectParent(answers);
    tracker->startListenFilterTracking(6);
    EXPECT_EQ(said(), "\n0 ~startTracking 6\n0 ~runIpTableAddCommands\n" + log +
                          "2 ~startTracking fail to add ipTable rules\n");
  }
}

/// The result of a command to a parent that acknowledges each piece and then |leaves| instead of
/// giving a result.
int commandAbandoned(RecordingHost& host, Tracker& tracker,
                     void (*leaves)(base::UniqueFd& parentsEnd)) {
  std::array<int, 2> ends{};
  EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()), 0);
  const base::UniqueFd own(ends[0]);
  base::UniqueFd parentsEnd(ends[1]);
  const int before = std::exchange(host.zan.commandChannelFd, own.get());
  std::thread parent([&] {
    constexpr int kPieces = 5;
    constexpr std::int32_t kAcknowledgement = 0;
    for (int piece = 0; piece < kPieces; ++piece) {
      std::array<char, 16> bytes;
      recv(parentsEnd.get(), bytes.data(), bytes.size(), 0);
      send(parentsEnd.get(), &kAcknowledgement, sizeof(kAcknowledgement), 0);
    }
    leaves(parentsEnd);
  });
  const int result = tracker.execCommand(ZAN_CMD_IDLETIMER_ADD_1);
  parent.join();
  host.zan.commandChannelFd = before;
  return result;
}

TEST_F(ZanIfConnTrackerTest, AParentThatOnlyStopsTalkingMakesACommandSucceed) {
  EXPECT_EQ(
      commandAbandoned(host, *tracker, [](base::UniqueFd& end) { shutdown(end.get(), SHUT_WR); }),
      0);
}

TEST_F(ZanIfConnTrackerTest, AParentThatHasClosedItsSocketMakesACommandFail) {
  std::signal(SIGPIPE, SIG_IGN);  // as every host has it
  host.take();
  EXPECT_EQ(commandAbandoned(host, *tracker, [](base::UniqueFd& end) { end.reset(); }), -1);
  EXPECT_EQ(host.take(), "\n4 10409 send_and_recv_ack write failed\n");
}

TEST_F(ZanIfConnTrackerTest, RestartsTheTimerWithTwiceItsLength) {
  const std::string listen =
      "\n0 ~install listen filters \ngetWwanInfo w9\ninstallListenFilters " + kText + " 0\n";
  host.take();
  for (const int last : {0, 10, 20, 40, 80}) {
    const int next = last == 0 ? 10 : 2 * last;
    const std::string restart = "idleTimer value is :" + to_string(next) + "\n" + started(next);
    const std::string end = "Max idle timer value is reached.Not restarting the timer :80\n";
    tracker->instalListenFilters();
    EXPECT_EQ(said(), listen + "0 ~ install listen filter: successfull \n" + stopped(last) +
                          "0 ~ start listen filters track\n2 ~" + (last == 80 ? end : restart));
  }
  host.listenFiltersAnswer = 0;
  tracker->instalListenFilters();
  EXPECT_EQ(said(), listen + "4 ~install Listen Filters: Failed to add filters for iface w9\n" +
                        kUninstalled + stopped(80));
  tracker->maybeStartIdleTimer();
  tracker->installFilters();
  tracker->maybeStartIdleTimer();
  EXPECT_EQ(host.take("value is :10$").size(), 99U);  // twice
}

TEST_F(ZanIfConnTrackerTest, ReportsEachChangeOfTheTimer) {
  const auto listener = [](const void* status, void* cbData, std::string name) {
    const int idle = *static_cast<const std::uint8_t*>(status);
    static_cast<RecordingHost*>(cbData)->record("report " + to_string(idle) + " " + name);
  };
  const TableFile file;
  tracker->idleTimerFd = dup2(file.fd(), 900);
  EXPECT_EQ(tracker->regIdleStatusChgEvt(listener, &host), 0);
  EXPECT_EQ(tracker->regIdleStatusChgEvt(nullptr, nullptr), -1);
  host.take();
  for (const char* text : {"0\n", "0\n", "5555555555\n", "", "1\n", "0000000005"}) {
    file.write(text);
    Tracker::idleTimerExpiryHandler(900, tracker.get());
  }
  EXPECT_EQ(host.take("report"),
            "\nreport 1 w9\nreport 0 w9\nreport 1 w9\nreport 0 w9\nreport 1 w9\n");
  tracker->idleTimeOut = 6;
  Tracker::idleTimerExpiryHandler(-1, nullptr);
  Tracker::idleTimerExpiryHandler(-1, tracker.get());
  EXPECT_EQ(said(), R"(
3 10409 ZanIfConnTracker cbdata is NULL
3 10409 ZanIfConnTracker idle timer fd read failed with errno: Bad file descriptor
0 ~stopTracking
0 ~removeComEventHandler fd 900
removeComEventHandler 900
0 ~closing file descriptor 
)" + rules(10, 6) + started(6));
  tracker->idleTimerFd = dup2(file.fd(), 900);
  Tracker::idleTimerExpiryHandler(900, tracker.get());  // a stop has forgotten the status
  tracker->startListenFilterTracking(6);                // and a start does not leak the descriptor
  EXPECT_EQ(host.take("report|^rem"),
            "\nreport 1 w9\nremoveComEventHandler 900\nremoveComEventHandler -1\n");
}

TEST_F(ZanIfConnTrackerTest, DoesNothingWithoutANameATableOrATimeout) {
  Tracker nameless(host.zan, utils, host.zan.zanRix, "");
  Tracker endless(host.zan, utils, host.zan.zanRix, std::string(5000, 'n'));
  endless.startListenFilterTracking(6);
  EXPECT_NE(host.take("open fail = 2$"), "\n");  // the path is cut
  EXPECT_EQ(nameless.installFilters(), -1);
  nameless.instalListenFilters();
  utils.connTrackFd = -1;
  EXPECT_EQ(tracker->installFilters(), -1);
  tracker->startListenFilterTracking(0);
  EXPECT_EQ(tracker->startNlSockEvents(), -1);
  tracker->stopNlSockEvents();
  EXPECT_EQ(said(), R"(
4 ~installFilters Entering
4 ~installFilters Iface Name is Empty
0 ~install listen filters 
4 ~install listen Filters Iface Name is Empty
4 ~Failed to get Nf_connTrack Descriptor
0 ~startTracking 0
2 ~startTracking idleTimeOut <= 0
0 ~startNlSockEvents:: registering nlsock for ifaceName w9
0 10409 ZanConnTrackUtils::ZOLV flag enabled , ZAN netlink functionality is disabled.
0 ~stopNlSockEvents: deregistering nlsock for ifaceName w9
0 10409 ZanConnTrackUtils::deRegNlSockEvents nothing to dereg
)");
}

}  // namespace
