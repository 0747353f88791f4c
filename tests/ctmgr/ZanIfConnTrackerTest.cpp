// The tracker of one interface: when filters come and go, and how its idle timer runs. There is no
// timer's file here, so that every start ends with a stop; tests put a file of their own there.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <cstring>

#include "ctmgr/ZanIfConnTracker.h"
#include "host/Agreement.h"
#include "tests/RecordingHost.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

constexpr int kTableFd = 901;

struct TableUtils : ZanConnTrackUtils {
  explicit TableUtils(Zan& zan) : ZanConnTrackUtils(zan) { connTrackFd = kTableFd; }
  ~TableUtils() { connTrackFd = -1; }
  using ZanConnTrackUtils::connTrackFd;
};
struct Tracker : ZanIfConnTracker {
  using ZanIfConnTracker::idleTimeOut;
  using ZanIfConnTracker::idleTimerFd;
  using ZanIfConnTracker::ZanIfConnTracker;
};

struct ZanIfConnTrackerTest : testing::Test {
  RecordingHost host;
  TableUtils utils{host.zan};
  std::unique_ptr<Tracker> tracker;

  void SetUp() override {
    host.connectParent();
    tracker = std::make_unique<Tracker>(host.zan, utils, host.zan.zanRix, "w9");
    host.forget();
  }
  void switchTethering(std::int32_t state) {
    host.zan.zanDsm.dispatchEvent(ZAN_DSM_EVENT_TETHERING_STATE, &state);
  }
  Lines filtersIn() { return host.calls("installFilters"); }
  Lines filtersOut() { return host.calls("uninstallFilters"); }
  Lines exchanges() { return host.calls("parent"); }
  /// The lengths of all timers that rules were added for, in seconds.
  std::vector<int> timers() {
    std::vector<int> seconds;
    for (const std::string& exchange : host.calls("parent 8 w9 ")) {
      seconds.push_back(std::stoi(exchange.substr(std::strlen("parent 8 w9 "))));
    }
    return seconds;
  }
};

// How it begins and ends.

TEST_F(ZanIfConnTrackerTest, RegistersInOrder) {
  const Tracker other(host.zan, utils, host.zan.zanRix, "w8");
  EXPECT_THAT(host.record(),
              ElementsAre("0 10409 ZanIfConnTracker::ZanIfConnTracker(Zan &, ZanConnTrackUtils &, "
                          "ZanRix &, string):84",
                          "regDormancyStatusChgEvent w8", "regFilteringStatusChgEvent w8",
                          "property_get persist.vendor.zan.vndr.ctmgr.disable.icmp 0"));
}

TEST_F(ZanIfConnTrackerTest, TakesEverythingAwayInOrder) {
  tracker.reset();
  EXPECT_THAT(
      host.record(),
      ElementsAre("0 10409 ZanIfConnTracker::~ZanIfConnTracker():120", "uninstallFilters w9",
                  "setDfsFilterMode w9 0", "0 10409 ZanIfConnTracker::stopTracking",
                  "0 10409 ZanIfConnTracker::removeComEventHandler fd -1",
                  "removeComEventHandler -1", "parent 10 w9 0 CT IDLETIMER 0",
                  "parent 11 w9 0 CT IDLETIMER 0", "deRegDormancyStatusChgEvent w9 1",
                  "deRegFilteringStatusChgEvent w9 1"));
}

// Filters.

TEST_F(ZanIfConnTrackerTest, ADormantLinkGetsFiltersAndATimerOfFiveSeconds) {
  host.reportDormancy(kLinkDormant);
  EXPECT_THAT(filtersIn(), SizeIs(1));
  EXPECT_THAT(host.calls("setDfsFilterMode"), ElementsAre("setDfsFilterMode w9 1"));
  EXPECT_THAT(timers(), ElementsAre(5));
}

TEST_F(ZanIfConnTrackerTest, TellsTheModemWhatTheMonitorKnows) {
  constexpr std::int32_t kStatus = 7;
  const std::string second(sizeof(_ZanDsmWwanInfoType::text) - kWwanSecondTextOffset, 's');
  host.wwan["w9"] = {0, 0, kStatus, 0, {}, "first"};
  second.copy(host.wwan["w9"].text + kWwanSecondTextOffset, second.size());  // without a NUL
  host.property = "3";
  tracker = std::make_unique<Tracker>(host.zan, utils, host.zan.zanRix, "w9");
  tracker->installFilters();
  tracker->instalListenFilters();
  EXPECT_THAT(filtersIn(), ElementsAre("installFilters w9 7 first " + second + " 3 901"));
  EXPECT_THAT(host.calls("installListenFilters"),
              ElementsAre("installListenFilters w9 7 first " + second + " 0"));
}

TEST_F(ZanIfConnTrackerTest, IgnoresDormancyThatIsNotItsOwn) {
  host.reportDormancy(kLinkDormant, "w");
  host.reportDormancy(kLinkActive);
  EXPECT_THAT(filtersIn(), IsEmpty());
}

TEST_F(ZanIfConnTrackerTest, IgnoresDormancyWhileTethering) {
  host.zan.zanDsm.tetheringIndicator = -1;
  host.reportDormancy(kLinkDormant);
  EXPECT_THAT(filtersIn(), IsEmpty());
}

TEST_F(ZanIfConnTrackerTest, ListensForDormancyUntilFiltersAreIn) {
  host.filtersAnswer = -7;
  host.reportDormancy(kLinkDormant);
  EXPECT_THAT(host.calls("deRegDormancy"), IsEmpty());
  EXPECT_THAT(host.calls("setDfsFilterMode"), IsEmpty());
  host.filtersAnswer = 1;
  host.reportDormancy(kLinkDormant);
  EXPECT_THAT(host.calls("deRegDormancy"), ElementsAre("deRegDormancyStatusChgEvent w9 1"));
  EXPECT_THAT(host.logged("after installFilters"), ElementsAre(HasSubstr("-7"), HasSubstr("0")));
}

TEST_F(ZanIfConnTrackerTest, AnAnswerOfZeroInstallsNothingButEndsTheListening) {
  host.filtersAnswer = 0;
  host.reportDormancy(kLinkDormant);
  EXPECT_THAT(host.calls("setDfsFilterMode"), IsEmpty());
  EXPECT_THAT(host.calls("deRegDormancy"), SizeIs(1));
}

TEST_F(ZanIfConnTrackerTest, IgnoresASecondDormancy) {
  host.reportDormancy(kLinkDormant);
  host.reportDormancy(kLinkDormant);
  EXPECT_THAT(filtersIn(), SizeIs(1));
}

TEST_F(ZanIfConnTrackerTest, TheEndOfFilteringTakesThemAwayAndListensAgain) {
  host.reportDormancy(kLinkDormant);
  host.forget();
  host.reportFiltering(kFilteringEnded);
  EXPECT_THAT(filtersOut(), SizeIs(1));
  EXPECT_THAT(host.calls("setDfsFilterMode"), ElementsAre("setDfsFilterMode w9 0"));
  EXPECT_THAT(host.calls("regDormancy"), ElementsAre("regDormancyStatusChgEvent w9"));
  host.reportDormancy(kLinkDormant);
  EXPECT_THAT(filtersIn(), SizeIs(1));
}

TEST_F(ZanIfConnTrackerTest, IgnoresFilteringThatIsNotItsOwnEnd) {
  constexpr std::int32_t kFilteringGoesOn = 2;
  host.reportFiltering(kFilteringEnded, "w");
  host.reportFiltering(kFilteringGoesOn);
  EXPECT_THAT(filtersOut(), IsEmpty());
}

TEST_F(ZanIfConnTrackerTest, TetheringTakesFiltersAwayAndItsEndBringsThemBack) {
  switchTethering(kTetheringOn);
  EXPECT_THAT(filtersOut(), SizeIs(1));
  EXPECT_THAT(filtersIn(), IsEmpty());
  switchTethering(kTetheringOff);
  EXPECT_THAT(filtersIn(), SizeIs(1));
  EXPECT_THAT(host.calls("deRegDormancy"), SizeIs(1));
}

TEST_F(ZanIfConnTrackerTest, IgnoresTetheringOnAnActiveLinkAndUnknownStates) {
  constexpr std::int32_t kUnknown = 2;
  switchTethering(kUnknown);
  host.dormancyStatus = kLinkActive;
  switchTethering(kTetheringOn);
  switchTethering(kTetheringOff);
  EXPECT_THAT(filtersIn(), IsEmpty());
  EXPECT_THAT(filtersOut(), IsEmpty());
}

TEST_F(ZanIfConnTrackerTest, WithoutATableThereAreNoFilters) {
  utils.connTrackFd = -1;
  EXPECT_EQ(tracker->installFilters(), -1);
  EXPECT_THAT(filtersIn(), IsEmpty());
}

// The timer.

TEST_F(ZanIfConnTrackerTest, ATimerIsTwoRulesAndWithoutItsFileTheyAreTakenBack) {
  tracker->startListenFilterTracking(6);
  EXPECT_THAT(exchanges(),
              ElementsAre("parent 8 w9 6 CT IDLETIMER 0", "parent 9 w9 6 CT IDLETIMER 0",
                          "parent 10 w9 6 CT IDLETIMER 0", "parent 11 w9 6 CT IDLETIMER 0"));
  EXPECT_THAT(host.logged("file open fail"),
              ElementsAre("2 10409 ZanIfConnTracker::startTracking file open fail = 2"));
}

TEST_F(ZanIfConnTrackerTest, GivesUpWhenTheParentRefusesACommand) {
  host.connectParent({-1});
  tracker->startListenFilterTracking(6);
  EXPECT_THAT(exchanges(), ElementsAre("parent 8"));
  EXPECT_THAT(host.logged("corrupted"), SizeIs(1));
}

TEST_F(ZanIfConnTrackerTest, GivesUpWhenACommandFails) {
  constexpr int kAnswersToACommand = 6;  // five acknowledgements and the result
  for (const std::size_t failing : {1U, 2U}) {
    std::vector<std::int32_t> answers(failing * kAnswersToACommand);
    answers.back() = 1;
    host.connectParent(answers);
    host.forget();
    tracker->startListenFilterTracking(6);
    EXPECT_THAT(exchanges(), SizeIs(failing)) << "nothing is asked for after a failure";
    EXPECT_THAT(host.logged("failed to execute command"), SizeIs(1));
    EXPECT_THAT(host.logged("open fail"), IsEmpty()) << "there is no timer";
  }
}

TEST_F(ZanIfConnTrackerTest, DoublesUpToEightyAndThenStops) {
  tracker->installFilters();
  for (int idle = 0; idle < 5; ++idle) tracker->instalListenFilters();
  EXPECT_THAT(timers(), ElementsAre(5, 10, 20, 40, 80));
  EXPECT_THAT(host.logged("Max idle timer value"), SizeIs(1));
}

TEST_F(ZanIfConnTrackerTest, BeginsAtFiveAgainWithNewFiltersAndWithoutAny) {
  tracker->instalListenFilters();
  tracker->installFilters();
  tracker->instalListenFilters();
  tracker->uninstallFilters();
  tracker->instalListenFilters();
  EXPECT_THAT(timers(), ElementsAre(10, 5, 10, 10));
}

TEST_F(ZanIfConnTrackerTest, ALongerTimerReplacesTheRulesOfTheOneBefore) {
  tracker->idleTimeOut = 5;
  tracker->instalListenFilters();
  ASSERT_THAT(exchanges(), testing::Not(IsEmpty()));
  EXPECT_EQ(exchanges()[0], "parent 10 w9 5 CT IDLETIMER 0");
}

TEST_F(ZanIfConnTrackerTest, RefusedListenFiltersTakeEverythingAway) {
  host.listenFiltersAnswer = 0;
  tracker->instalListenFilters();
  EXPECT_THAT(filtersOut(), SizeIs(1));
  EXPECT_THAT(timers(), IsEmpty());
}

/// A tracker with a timer whose file the test writes, and a listener.
struct IdleTimer : ZanIfConnTrackerTest {
  static constexpr int kTimerFd = 900;
  TableFile file;

  void SetUp() override {
    ZanIfConnTrackerTest::SetUp();
    tracker->regIdleStatusChgEvt(listener, &host);
    openFile();
  }
  ~IdleTimer() override { close(kTimerFd); }

  static void listener(const void* status, void* cbData, std::string name) {
    const bool idle = *static_cast<const std::uint8_t*>(status) == 1;
    static_cast<RecordingHost*>(cbData)->note(name + (idle ? " is idle" : " is active"));
  }
  void openFile() { tracker->idleTimerFd = dup2(file.fd(), kTimerFd); }
  void show(const std::string& seconds) {
    file.write(seconds);
    Tracker::idleTimerExpiryHandler(kTimerFd, tracker.get());
  }
  Lines reports() { return host.calls("w9 is"); }
  [[nodiscard]] static bool isOpen() { return fcntl(kTimerFd, F_GETFD) != -1; }
};

TEST_F(IdleTimer, IsIdleAtZeroAndActiveAtAnythingElse) {
  for (const char* seconds : {"0\n", "5555555555\n", "", "0000000005"}) show(seconds);
  EXPECT_THAT(reports(), ElementsAre("w9 is idle", "w9 is active", "w9 is idle"))
      << "ten characters are read as nine";
}

TEST_F(IdleTimer, ReportsOnlyChanges) {
  for (const char* seconds : {"5\n", "0\n", "0\n", "4\n", "3\n"}) show(seconds);
  EXPECT_THAT(reports(), ElementsAre("w9 is idle", "w9 is active"));
}

TEST_F(IdleTimer, AStopEndsTheWatchClosesTheFileAndForgetsTheStatus) {
  show("0\n");
  host.forget();
  tracker->stopListenFilterTracking();
  EXPECT_THAT(host.calls("removeComEventHandler"), ElementsAre("removeComEventHandler 900"));
  EXPECT_FALSE(isOpen());
  EXPECT_EQ(tracker->idleTimerFd, -1);
  openFile();
  show("0\n");
  EXPECT_THAT(reports(), SizeIs(1)) << "idle is news again";
}

TEST_F(IdleTimer, ASecondStartEndsTheWatchAndClosesTheFileOfTheFirst) {
  tracker->startListenFilterTracking(6);
  EXPECT_THAT(host.calls("removeComEventHandler"),
              ElementsAre("removeComEventHandler 900", "removeComEventHandler -1"));
  EXPECT_FALSE(isOpen());
}

TEST_F(IdleTimer, IsRestartedWhenItCannotBeRead) {
  tracker->idleTimeOut = 6;
  Tracker::idleTimerExpiryHandler(-1, tracker.get());
  EXPECT_THAT(exchanges(), SizeIs(6)) << "two rules deleted, added and deleted again";
  EXPECT_THAT(timers(), ElementsAre(6));
}

TEST_F(IdleTimer, HasOneListenerOrNone) {
  EXPECT_EQ(tracker->regIdleStatusChgEvt(nullptr, nullptr), -1);
  Tracker::idleTimerExpiryHandler(kTimerFd, nullptr);
  EXPECT_THAT(host.logged("cbdata is NULL"), SizeIs(1));
  show("0\n");
  EXPECT_THAT(reports(), SizeIs(1)) << "the one before stays";
}

}  // namespace
