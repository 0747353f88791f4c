// What comes of every operation when one of the calls that it makes fails.
#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <iterator>

#include "base/Patience.h"
#include "host/Agreement.h"
#include "tests/Hotspot.h"
#include "tests/PresentManager.h"
#include "tests/Sleepers.h"
#include "tests/faults/FaultyCalls.h"

namespace {

/// A host with the mobile-data interface w9, a timer, a hotspot client, and a table that takes two
/// reads.
class World {
 public:
  World() {
    faults::table = hotspot.table.fd();
    faults::timer = timer.fd();
    host.wwan["w9"] = {0, 0, ZAN_WWAN_STATUS_CONNECTED, 0, {ZAN_APN_TYPE_DEFAULT}, "first"};
    host.connectParent();
    faults::channel = host.zan.commandChannelFd;
    hotspot.table.write(tableEntry(client.ipv4(), 101) + std::string(3900, '.') + "\n" +
                        tableEntry(client.ipv4(), 102) + tableEntry(client.ipv6(), 103));
  }

  /// From start to end, with everything that flushes. One thread works at a time.
  void liveWithAHotspot() {
    host.property = "0";
    host.wwan.clear();
    init_ct_mgr(&host.zan);
    hotspot.announce(client);
    hotspot.reportClients({client.mac()});
    hotspot.reportClients({});
    PresentManager::awaitDeletions();
    gConnTrackMgr->processDisconnectedSapClient(client.mac());
    PresentManager::awaitDeletions();
    hotspot.losesUpstream({"7.7.7.7"});
    PresentManager::stop();
  }

  /// From start to end, with everything that a tracker does.
  void liveWithAnInterface() {
    host.property = "3";
    init_ct_mgr(&host.zan);
    host.reportDormancy(kLinkDormant);
    expire("0\n");
    expire("5\n");
    report(ZAN_DSM_EVENT_TETHERING_STATE, kTetheringOn);
    report(ZAN_DSM_EVENT_TETHERING_STATE, kTetheringOff);
    host.reportFiltering(kFilteringEnded);
    host.reportDormancy(kLinkDormant);
    report(ZAN_DSM_EVENT_WWAN_STATUS, connection(ZAN_WWAN_STATUS_DISCONNECTED));
    report(ZAN_DSM_EVENT_WWAN_STATUS, connection(ZAN_WWAN_STATUS_CONNECTED));
    host.reportDormancy(kLinkDormant);
    const int result = PresentManager::tracker("w9").execCommand(ZAN_CMD_IDLETIMER_ADD_1);
    host.note("result " + std::to_string(result));
    PresentManager::stop();
  }

  /// What has been recorded since the last time, sorted.
  Lines takeRecord() {
    Lines lines = host.record();
    host.forget();
    std::sort(lines.begin(), lines.end());
    return lines;
  }

 private:
  struct Tracker : ZanIfConnTracker {
    static constexpr auto kTimerFd = &Tracker::idleTimerFd;
  };

  template <typename Payload>
  void report(ZanDsmEvent event, const Payload& payload) {
    host.zan.zanDsm.dispatchEvent(event, &payload);
  }
  static ZanDsmWwanStatusInfo connection(std::uint32_t status) {
    return {status, "w9", {ZAN_APN_TYPE_DEFAULT}};
  }
  void expire(const char* seconds) {
    ZanIfConnTracker& tracker = PresentManager::tracker("w9");
    timer.write(seconds);
    ZanIfConnTracker::idleTimerExpiryHandler(tracker.*Tracker::kTimerFd, &tracker);
  }

  const Client client{1};
  Hotspot hotspot;
  RecordingHost& host = hotspot.host;
  TableFile timer;
};

using Life = void (World::*)();

/// What a call's failure is told as while it lasts. Afterwards, everything is as if it had not
/// failed.
struct Outcome {
  const char* call;
  const char* logged;  ///< '#' stands for the error; empty when nobody is told
};
constexpr Outcome kOutcomes[] = {
    {"open table", "Failed to open file #"},              // there are neither flushes nor filters
    {"property_get", ""},                                 // the property counts as not set
    {"new", ""},                                          // what it was for is done without
    {"fdopen", "setPrivilegeParams: #"},                  // the flush finds nothing
    {"rewind table", ""},                                 // it finds what is behind the last one
    {"read table", ""},                                   // what was found before is deleted
    {"send", ""},                                         // the others are deleted
    {"read channel", "send_and_recv_ack read failed"},    // the exchange ends
    {"write channel", "send_and_recv_ack write failed"},  // the exchange ends
    {"open timer", "file open fail = #"},                 // the rules are taken back
    {"read timer", "idle timer fd read failed"},          // the timer is started anew
    {"close", ""},                                        // the kernel has freed the descriptor
};

long count(const Lines& lines, const std::string& part) {
  return std::count_if(lines.begin(), lines.end(),
                       [&](const auto& line) { return line.find(part) != std::string::npos; });
}

void expectOutcome(const std::string& call, int error, const Lines& clean, const Lines& record) {
  const auto* outcome = std::find_if(std::begin(kOutcomes), std::end(kOutcomes),
                                     [&](const Outcome& known) { return known.call == call; });
  ASSERT_NE(outcome, std::end(kOutcomes)) << "no outcome is known";
  std::string text = outcome->logged;
  if (text.ends_with('#')) text.replace(text.size() - 1, 1, std::to_string(error));
  if (!text.empty()) {
    EXPECT_GT(count(record, text), count(clean, text)) << "nobody is told: " << text;
  }
  if (call != "send") {
    EXPECT_EQ(count(record, "sendConntrackNetlinkMsg"), count(record, "Line: AF="))
        << "what was found is deleted";
  }
}

/// Lives a |life| with |fault| and then one without. False when it makes fewer calls.
bool failOne(Life life, const faults::Fault& fault, const Lines& clean) {
  World world;
  faults::fail(fault);
  (world.*life)();
  const std::string failed = faults::stop();
  const Lines record = world.takeRecord();
  if (failed.empty()) return false;
  SCOPED_TRACE(failed + " fails");
  expectOutcome(failed, fault.error, clean, record);
  (world.*life)();
  EXPECT_EQ(world.takeRecord(), clean) << "the next life, without a fault";
  return true;
}

/// How many there are, but for files under /proc: the C library reads one now and then, on any
/// thread.
auto openDescriptors() {
  const std::filesystem::directory_iterator all("/proc/self/fd");
  return std::count_if(begin(all), end(all), [](const auto& descriptor) {
    std::error_code closed;
    const auto file = std::filesystem::read_symlink(descriptor, closed);
    return !closed && !file.native().starts_with("/proc/");
  });
}

auto threadCount() {
  const std::filesystem::directory_iterator all("/proc/self/task");
  return std::distance(begin(all), end(all));
}

/// What a |life| records when nothing fails.
Lines liveCleanly(Life life) {
  World world;
  (world.*life)();
  return world.takeRecord();
}

void expectThatEachCallMayFail(Life life) {
  using Extent = faults::Fault::Extent;
  constexpr std::pair<int, Extent> kErrors[] = {
      {EIO, Extent::kOnce}, {ENOENT, Extent::kFromThenOn}, {EMFILE, Extent::kFromThenOn}};
  const auto threads = threadCount();
  const Lines clean = liveCleanly(life);
  int failed = 0;
  bool fails = true;
  for (int number = 1; fails; ++number) {
    for (const auto& [error, extent] : kErrors) {
      SCOPED_TRACE("call " + std::to_string(number) + ", error " + std::to_string(error));
      const auto before = openDescriptors();
      fails = failOne(life, {number, error, extent}, clean);
      EXPECT_EQ(openDescriptors(), before) << "descriptors";
      if (fails) ++failed;
    }
  }
  std::printf("%d calls failed\n", failed);
  EXPECT_TRUE(base::eventually([threads] {
    sleepers::wake();
    return threadCount() == threads;
  })) << "clean-ups sleep on when their manager has gone, but not for ever";
}

TEST(FaultTable, EachCallOfALifeWithAHotspotMayFail) {
  expectThatEachCallMayFail(&World::liveWithAHotspot);
}

TEST(FaultTable, EachCallOfALifeWithAnInterfaceMayFail) {
  expectThatEachCallMayFail(&World::liveWithAnInterface);
}

TEST(FaultTable, TheProcessEndsWhenNoThreadStarts) {
  World world;
  pthread_attr_t endless;
  pthread_attr_init(&endless);
  pthread_attr_setstacksize(&endless, ~std::size_t{0} / 4 * 3);
  EXPECT_EXIT(pthread_setattr_default_np(&endless);
              world.liveWithAHotspot(), testing::KilledBySignal(SIGABRT), "");
}

}  // namespace
