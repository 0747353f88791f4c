// What comes of every operation when one of the calls that it makes fails.
#include <gtest/gtest.h>
#include <linux/rtnetlink.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <iostream>
#include <iterator>
#include <regex>
#include <sstream>
#include <thread>

#include "base/Patience.h"
#include "ctmgr/ZanConnTrackMgr.h"
#include "tests/Deletions.h"
#include "tests/RecordingHost.h"
#include "tests/Sleepers.h"
#include "tests/faults/FaultyCalls.h"

namespace {

using namespace std::chrono_literals;
using Lines = std::vector<std::string>;

struct Tracker : ZanIfConnTracker {
  static constexpr auto kFd = &Tracker::idleTimerFd;
};

/// A host with the mobile-data interface w9, a timer, and a table that takes two reads.
struct World {
  struct Manager : ZanConnTrackMgr {
    static auto& w9() { return *(gConnTrackMgr->*(&Manager::ifTrackers)).at("w9"); }
  };
  const std::string client = "0a:00:00:00:00:01";
  RecordingHost host;
  TableFile table;
  TableFile timer;

  World() {
    faults::table = table.fd();
    faults::timer = timer.fd();
    host.wwan["w9"] = {0, 0, 1, 0, {ZAN_APN_TYPE_DEFAULT}, "first"};
    host.connectParent();
    faults::channel = host.zan.commandChannelFd;
    table.write(tableEntry("10.0.0.1", 101) + std::string(3900, '.') + "\n" +
                tableEntry("10.0.0.1", 102) +
                tableEntry("2001:0db8:0000:0000:0000:0000:0000:0001", 103));
  }
  ~World() {
    stopAndAwaitDeletions();
    sleepers::wake();
  }
  void start(const char* switchedOff = "3") {
    stopAndAwaitDeletions();
    host.property = switchedOff;
    result(init_ct_mgr(&host.zan));
  }
  void startWithClient() {
    host.wwan.clear();  // what a worker and a tracker do at a time would mix
    start("0");
    notify("10.0.0.1");
    notify("2001:db8::1");
    dispatch(ZAN_DSM_EVENT_SAP_CLIENTS, ZanDsmTextList{client});
  }
  void notify(const std::string& address) {
    const Bytes bytes = addressBytes(address);
    host.receive(1000, neighbourMessage(RTM_NEWNEIGH, bytes.size() == 4 ? AF_INET : AF_INET6,
                                        {{NDA_DST, bytes}, {NDA_LLADDR, {10, 0, 0, 0, 0, 1}}}));
  }
  template <typename Payload>
  void dispatch(ZanDsmEvent event, const Payload& payload) {
    host.zan.zanDsm.dispatchEvent(event, &payload);
  }
  void depart() { dispatch(ZAN_DSM_EVENT_SAP_CLIENTS, ZanDsmTextList{}); }
  void flush() { gConnTrackMgr->processDisconnectedSapClient(client); }
  void lose() { dispatch(ZAN_DSM_EVENT_UPSTREAM_IP_LOST, ZanDsmTextList{"7.7.7.7"}); }
  void turn(std::uint32_t status) {
    dispatch(ZAN_DSM_EVENT_WWAN_STATUS, ZanDsmWwanStatusInfo{status, "w9", {ZAN_APN_TYPE_DEFAULT}});
  }
  void tether(std::int32_t state) { dispatch(ZAN_DSM_EVENT_TETHERING_STATE, state); }
  void sleep() {  // after waking up
    const ZanRixStatusRecord record{"w9", 1};
    host.filteringListener.first({}, &record, host.filteringListener.second);
    host.dormancyListener.first({}, &record, host.dormancyListener.second);
  }
  void expire(const char* seconds) {
    timer.write(seconds);
    ZanIfConnTracker::idleTimerExpiryHandler(Manager::w9().*Tracker::kFd, &Manager::w9());
  }
  void command() { result(Manager::w9().execCommand(ZAN_CMD_IDLETIMER_ADD_1)); }
  void result(int value) { host.record("result " + std::to_string(value)); }

  /// What has been recorded, sorted, once no worker works.
  Lines taken() {
    static_cast<void>(
        base::eventually([] { return gConnTrackMgr == nullptr || Deletions::rest(); }));
    std::string text = host.take();
    std::erase(text, '\0');
    std::istringstream stream(text);
    Lines lines;
    for (std::string line; std::getline(stream, line);) lines.push_back(line);
    std::sort(lines.begin(), lines.end());
    return lines;
  }
};

using Step = void (*)(World&);
constexpr Step kStopped = [](World&) { stopAndAwaitDeletions(); };
constexpr Step kStarted = [](World& w) { w.start(); };
constexpr Step kHotspot = [](World& w) { w.startWithClient(); };
constexpr Step kFlushed = [](World& w) { gConnTrackMgr ? w.flush() : w.startWithClient(); };
constexpr Step kDormant = [](World& w) { gConnTrackMgr ? w.sleep() : (w.start(), w.sleep()); };

// Name, what leads to it, and what it does. It is done twice, with a fault and without.
const std::tuple<const char*, Step, Step> kOperations[] = {
    {"start", kStopped, [](World& w) { w.start(); }},
    {"start with hotspot", kStopped, [](World& w) { w.start("0"), w.flush(), w.lose(); }},
    {"neighbour", [](World& w) { w.start("0"); }, [](World& w) { w.notify("10.0.0.1"); }},
    {"first flush", kHotspot, [](World& w) { w.flush(); }},
    {"later flush", [](World& w) { kFlushed(w), kFlushed(w); }, [](World& w) { w.flush(); }},
    {"client gone", kHotspot, [](World& w) { w.depart(), stopAndAwaitDeletions(); }},
    {"upstream lost", kHotspot, [](World& w) { w.lose(); }},
    {"interface up", [](World& w) { w.start(), w.turn(4); }, [](World& w) { w.turn(1); }},
    {"first sleep", kStarted, [](World& w) { w.sleep(); }},
    {"later sleep", kDormant, [](World& w) { w.sleep(); }},
    {"tethering off", kStarted, [](World& w) { w.tether(0); }},
    {"tethering on", kDormant, [](World& w) { w.tether(1); }},
    {"idle", kDormant, [](World& w) { w.expire("0\n"); }},
    {"not idle", kDormant, [](World& w) { w.expire("5\n"); }},
    {"command", kStarted, [](World& w) { w.command(); }},
    {"interface down", [](World& w) { w.start(), w.sleep(); }, [](World& w) { w.turn(4); }},
    {"stop", [](World& w) { w.start(), w.sleep(); },
     [](World& w) { w.result(stopAndAwaitDeletions()); }},
};

/// When an |operation| on the channel fails, rules stay or are not added, or one command fails; the
/// parent has got its first pieces.
std::string exchange(const std::string& operation) {
  const std::string failed = "(?:[+]4 send_and_recv_ack " + operation + " failed\n)";
  const std::string stay = "[+]0 ~stopTracking runIpTableDeleteCommands failed\n";
  const std::string none = "[+]2 ~startTracking fail to add ipTable rules\n";
  const std::string some = "(?:[+]parent .*\n)*";
  return stay + failed + some + "-parent 10 .*\n|" + none + failed + some +
         "-addCom.*\n-parent 8 .*\n|" + stay + none + failed + "{2}" + some +
         "-addCom.*\n-parent 10 .*\n-parent 8 .*\n|" + failed +
         "(?:[+]parent (.*)\n[+]result -1\n-parent \\1.*|[+]result -1\n-parent .*)\n-result 0\n";
}

/// What each kind of call changes in the sorted record when it fails with the error '#': lines
/// more, then lines less. '~' is the tracker's class, modules are left out.
const std::map<std::string, std::string> kOutcomes = {
    {"table",
     "[+]3 ZanConnTrackMgr Failed to set Privilege Params\n"
     "([+]4 ZanConnTrackMgr::Failed to get Nf_connTrack Descriptor\n){0,2}"
     "[+]4 ZanConnTrackUtils::parseNfConnTrackFile: Failed to open file #\n(-.*\n)*"},
    {"property_get", "([+](0 )?(ZanConnTrackP|ZanNetlink|addCom).*\n)*(-property_get .*\n)+"},
    {"new",
     "[+]3 netlinkMgr / conntrackParser com obj is NULL\n(-.*\n)*-ZanNetlinkSocket 12 "
     ".*\n-addCom.*\n"
     "|[+]4 msgPtr is nullptr\n(-.*\n)+|(-0 ZanConnTrackParser.*\n)+-4 ZanConnTrackMgr:: Failed to "
     "parse.*\n"},
    {"fdopen",
     "([+]0 ZanConnTrackParser.*\n)+([+]4 ZanConnTrackParser::setPrivilegeParams: #\n)+"
     "([+]4 ZanConnTrackMgr:: Failed to parse /proc/net/nf_conntrack\n)?(-.*\n)*"},
    {"rewind", "(-.*\n)*"},
    {"scan", "(-.*\n)*"},
    {"send", "(-sendConntrackNetlinkMsg 1012\n)+"},
    {"read", exchange("read")},
    {"write", exchange("write")},
    {"timer",
     "([+]0 .*\n)*[+]2 ~startTracking file open fail = #\n[+]parent 10 "
     ".*\n[+]removeCom.*\n-addCom.*\n"
     "|([+]0 .*\n)*[+]0 ~startTracking 5\n([+]0 .*\n)*([+]2 ~startTracking file open fail = #\n)?"
     "[+]3 ZanIfConnTracker idle timer fd read failed with errno: .*\n([+][apr].*\n)*(-.*\n)*"},
};

/// What |now| has more and less than |before|.
std::string changes(const Lines& before, const Lines& now) {
  std::string text;
  const auto add = [&text](char sign, const Lines& from, const Lines& to) {
    Lines lines;
    std::set_difference(to.begin(), to.end(), from.begin(), from.end(), std::back_inserter(lines));
    for (const std::string& line : lines) text += line.empty() ? "" : sign + line + "\n";
  };
  add('+', before, now);
  add('-', now, before);
  text = std::regex_replace(text, std::regex("([0-9]) 104[0-9]{2}"), "$1");
  return std::regex_replace(text, std::regex("ZanIfConnTracker::"), "~");
}

/// True when |text| is what a failed call of |kind| may change.
bool isStated(const std::string& text, const std::string& kind, int error) {
  if (kOutcomes.count(kind) == 0) return text.empty();
  const std::string number = std::to_string(error);
  const std::string stated = std::regex_replace(kOutcomes.at(kind), std::regex("#"), number);
  return std::regex_match(text, std::regex(stated));
}

auto count(const Lines& lines, const std::string& text) {
  return std::count_if(lines.begin(), lines.end(),
                       [&](const std::string& line) { return line.find(text) != line.npos; });
}

/// Has call |number| of |run| fail; |clean| is what it records otherwise, set when |number| is 0.
/// False when there were fewer calls.
bool failOne(Step prepare, Step run, int number, int error, bool stays, Lines& clean) {
  World world;
  prepare(world);
  world.taken();
  faults::fail(number, error, stays);
  run(world);
  const Lines lines = world.taken();
  const std::string kind = faults::stop();
  if (number == 0) clean = lines;
  if (number != 0 && kind.empty()) return false;
  const std::string changed = changes(clean, lines);
  EXPECT_TRUE(isStated(changed, kind, error)) << kind << " changes\n" << changed;
  EXPECT_TRUE(kind == "send" || count(lines, "Line: AF=") == count(lines, "sendConn")) << kind;
  prepare(world);
  world.taken();
  run(world);
  EXPECT_EQ(changes(clean, world.taken()), "") << "after " << kind;
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

/// Has every call of |run| fail in turn. Returns how often one did.
int failAll(const std::string& name, Step prepare, Step run) {
  constexpr std::pair<int, bool> kFaults[] = {{EIO, false}, {ENOENT, true}, {EMFILE, true}};
  Lines clean;
  for (int number = 0, failed = 0;; ++number) {
    for (const auto& [error, stays] : kFaults) {
      SCOPED_TRACE(name + ", call " + std::to_string(number));
      const auto before = openDescriptors();
      if (!failOne(prepare, run, number, error, stays, clean)) return failed;
      EXPECT_EQ(openDescriptors(), before) << "descriptors";
      failed += number == 0 ? 0 : 1;
    }
  }
}

TEST(FaultTable, EveryCallFailsInTurn) {
  int failed = failAll("what the libraries keep", kStopped, kStopped);
  for (const auto& [name, prepare, run] : kOperations) {
    const long before = faults::allocations;
    failed += failAll(name, prepare, run);
    // A clean-up that sleeps when its manager goes keeps its own until it wakes.
    EXPECT_TRUE(base::eventually([before] {
      sleepers::wake();
      return faults::allocations == before;
    })) << name;
  }
  std::cout << std::size(kOperations) << " operations, " << failed << " calls failed\n";
}

TEST(FaultTable, TheProcessEndsWhenNoThreadStarts) {
  World world;
  world.startWithClient();
  pthread_attr_t endless;
  pthread_attr_init(&endless);
  pthread_attr_setstacksize(&endless, ~std::size_t{0} / 4 * 3);
  EXPECT_EXIT(pthread_setattr_default_np(&endless);
              world.lose(), testing::KilledBySignal(SIGABRT), "");
}

}  // namespace
