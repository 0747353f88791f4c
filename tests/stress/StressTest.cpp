// The plug-in's threads at full load: events, neighbour messages, clean-ups and deletions at once,
// and managers and hosts that go while clean-ups sleep.
#include <gtest/gtest.h>
#include <linux/rtnetlink.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <set>

#include "ctmgr/ZanConnTrackMgr.h"
#include "tests/RecordingHost.h"

namespace {

using namespace std::chrono_literals;
using Clock = RecordingHost::Clock;

// Nothing in here may order the plug-in's threads, which would hide races: no lock, and no order
// of memory but the relaxed one.
constexpr auto kRelaxed = std::memory_order_relaxed;

std::atomic<bool> sleepersHeld;
std::atomic<unsigned int> sleepsBegun;
std::atomic<unsigned int> sleepsEnded;

}  // namespace

/// The pause of the clean-ups takes a millisecond here; its full length while sleepers are held.
extern "C" int nanosleep(const timespec* pause, timespec* /*left*/) {
  if (pause->tv_sec != SAP_CLIENT_RECHECK_DELAY) return ppoll(nullptr, 0, pause, nullptr);
  sleepsBegun.fetch_add(1, kRelaxed);
  const auto end = Clock::now() + std::chrono::seconds(SAP_CLIENT_RECHECK_DELAY);
  do {
    poll(nullptr, 0, 1);
  } while (sleepersHeld.load(kRelaxed) && Clock::now() < end);
  sleepsEnded.fetch_add(1, kRelaxed);
  return 0;
}

namespace {

/// What becomes of the clean-ups of a round.
enum class End {
  kQuiet,  ///< they run to their end: every client is flushed three times
  kHeld,   ///< they sleep until the middle of the next round: every client is flushed once
  kAtOnce  ///< the manager goes while they work
};

constexpr int kLeaving = 24;
constexpr int kStaying = 4;
constexpr int kClients = kLeaving + kStaying;
constexpr int kEntries = 6;  ///< of each client; of one that stays, each over another upstream
constexpr int kTable = kEntries * kClients;
constexpr int kLosses = 2 * kLeaving / kEntries;  ///< of each upstream address
constexpr std::size_t kRequests = 3 * 2 * kLeaving * kEntries + kLosses * kStaying * kEntries;

struct Figures {
  std::size_t clientEvents, lossEvents, neighbourEvents, flushes, requests;
} figures;

/// What of the host the workers call does without the recorder's lock.
class StressHost final : public RecordingHost {
 public:
  struct Request {
    std::uint32_t number;
    std::pair<std::uint32_t, int> tuple;  ///< length of the request and port of the client
  };

  void recordRequest(int /*fd*/, const nlmsghdr* msg) override {
    const auto* end = reinterpret_cast<const std::uint8_t*>(msg) + msg->nlmsg_len;
    const int port = std::max(end[-12] << 8 | end[-11], end[-4] << 8 | end[-3]);
    const std::size_t index = sent.fetch_add(1, kRelaxed);
    if (index < requests.size()) requests[index] = {msg->nlmsg_seq, {msg->nlmsg_len, port}};
  }
  void log(int /*level*/, int /*module*/, const char* /*format*/, ...) override {}

  TableFile table;
  std::atomic<std::size_t> sent{0};
  std::vector<Request> requests = std::vector<Request>(2 * kRequests);
};

struct Utils : ZanConnTrackUtils {
  static constexpr auto kFd = &Utils::connTrackFd;
};
struct Manager : ZanConnTrackMgr {
  static int& fd() { return gConnTrackMgr->*(&Manager::connTrackUtils).*Utils::kFd; }
};

std::string upstream(int index) {
  return "7.7.7." + std::to_string(100 + index % kEntries);
}

/// One host's and manager's life with clients, addresses and a table of their own. The first
/// kLeaving clients come and go, the others stay.
class Round {
 public:
  Round(int number, End end) : number_(number), end_(end) {}

  void run() {
    ASSERT_EQ(init_ct_mgr(&host_->zan), 0);
    close(std::exchange(Manager::fd(), dup(host_->table.fd())));
    writeTable();
    if (end_ == End::kHeld) sleepersHeld.store(true, kRelaxed);
    for (int client = 0; client < kLeaving; ++client) {
      if (client == kLeaving / 2) sleepersHeld.store(end_ == End::kHeld, kRelaxed);
      sendEvents(client);
    }
    for (auto limit = Clock::now() + 30s; end_ == End::kQuiet && Clock::now() < limit;) {
      if (host_->sent.load(kRelaxed) >= kRequests) break;
      poll(nullptr, 0, 1);
    }
    const auto before = Clock::now();
    EXPECT_EQ(deinit_ct_mgr(), 0);
    EXPECT_LT(Clock::now() - before, 3s) << "waited for a sleeper";
    const std::size_t sent = host_->sent.load(kRelaxed);
    auto requests = std::move(host_->requests);
    host_.reset();
    ASSERT_LE(sent, requests.size());
    requests.resize(sent);
    check(requests);
  }

 private:
  static std::string address(int client, bool ipv6 = false) {
    const std::string own = std::to_string(100 + client);
    return ipv6 ? "2001:0db8:0000:0000:0000:0000:0000:0" + own : "10.1.1." + own;
  }

  /// Unlike every other of this round and of those around it; the servers' ports are lower.
  [[nodiscard]] int port(int entry) const { return 1000 + number_ % 300 * kTable + entry; }

  /// The entries of each client lie apart, from the head of the table to its end.
  void writeTable() {
    std::string text;
    for (int entry = 0; entry < kTable; ++entry) {
      const int client = entry % kClients;
      const bool stays = client >= kLeaving;
      text +=
          tableEntry(address(client), port(entry), stays ? upstream(entry / kClients) : "7.7.7.7");
      if (!stays) text += tableEntry(address(client, true), port(entry));
    }
    host_->table.write(text);
  }

  void notify(std::uint8_t type, int client, bool ipv6 = false) {
    const Bytes mac = {10, 0, 0, 0, 0, static_cast<std::uint8_t>(client)};
    const Bytes bytes = addressBytes(address(client, ipv6));
    host_->receive(1000, neighbourMessage(type, ipv6 ? AF_INET6 : AF_INET,
                                          {{NDA_DST, bytes}, {NDA_LLADDR, mac}}));
    ++figures.neighbourEvents;
  }

  void dispatch(ZanDsmEvent event, const ZanDsmTextList& list) {
    host_->zan.zanDsm.dispatchEvent(event, &list);
    ++(event == ZAN_DSM_EVENT_SAP_CLIENTS ? figures.clientEvents : figures.lossEvents);
  }

  /// |client| comes; every other time it leaves at once, with the one before.
  void sendEvents(int client) {
    std::array<char, 32> mac;
    std::snprintf(mac.data(), mac.size(), "0a:00:00:00:00:%02x", client);
    for (int other = 0; other < kClients; ++other) {
      notify(RTM_NEWNEIGH, kLeaving + other % kStaying);
      notify(RTM_DELNEIGH, other, true);
    }
    notify(RTM_NEWNEIGH, client);
    notify(RTM_NEWNEIGH, client, true);
    clients_.emplace_back(mac.data());
    dispatch(ZAN_DSM_EVENT_SAP_CLIENTS, clients_);
    if (client % 2 == 1) dispatch(ZAN_DSM_EVENT_SAP_CLIENTS, clients_ = {});
    dispatch(ZAN_DSM_EVENT_UPSTREAM_IP_LOST, {upstream(client), upstream(client + 1)});
  }

  /// Every tuple was requested once for each flush that selected it, and the sequence numbers are
  /// the first ones, each used once.
  void check(const std::vector<StressHost::Request>& requests) const {
    std::map<std::pair<std::uint32_t, int>, std::size_t> counts;
    std::set<std::uint32_t> numbers = {0};
    for (const auto& [number, tuple] : requests) {
      ++counts[tuple];
      numbers.insert(number);
    }
    EXPECT_EQ(numbers.size(), requests.size() + 1);
    EXPECT_EQ(*numbers.rbegin(), requests.size());

    std::map<int, std::set<std::size_t>> flushesOf;
    for (int entry = 0; entry < kTable; ++entry) {
      const int client = entry % kClients;
      flushesOf[client].insert(counts[{72, port(entry)}]);
      if (client < kLeaving) flushesOf[client].insert(counts[{96, port(entry)}]);
    }
    EXPECT_EQ(counts.size(), (2 * kLeaving + kStaying) * kEntries) << "a tuple of another round";
    for (const auto& [client, flushes] : flushesOf) {
      const bool stays = client >= kLeaving;
      ASSERT_EQ(flushes.size(), 1U) << "a part of a flush, client " << client;
      ASSERT_GE(*flushes.begin(), stays ? kLosses : end_ == End::kQuiet ? 3U : 1U);
      ASSERT_LE(*flushes.rbegin(), stays ? kLosses : end_ == End::kHeld ? 1U : 3U);
      figures.flushes += stays ? 0 : *flushes.begin();
    }
    figures.flushes += kLeaving;  // for lost addresses
    figures.requests += requests.size();
  }

  int number_;
  End end_;
  std::unique_ptr<StressHost> host_ = std::make_unique<StressHost>();
  ZanDsmTextList clients_;
};

TEST(StressTest, EveryFlushIsCarriedOutOnceAndNothingOutlivesItsManager) {
  const char* wanted = std::getenv("ZAN_STRESS_SECONDS");
  const std::chrono::seconds duration(wanted ? std::atoi(wanted) : 10);
  const auto begin = Clock::now();
  int rounds = 0;
  while (!HasFailure() && Clock::now() - begin < duration) {
    for (const End end : {End::kQuiet, End::kHeld, End::kAtOnce}) Round(rounds++, end).run();
  }
  const std::size_t departures = static_cast<std::size_t>(rounds) * kLeaving;
  const auto limit = Clock::now() + 30s;
  while (sleepsBegun.load(kRelaxed) < departures || sleepsEnded.load(kRelaxed) != sleepsBegun) {
    ASSERT_LT(Clock::now(), limit);
    poll(nullptr, 0, 1);
  }
  const std::chrono::duration<double> seconds = Clock::now() - begin;
  std::printf(
      "%d rounds: %zu events 27, %zu events 28, %zu neighbour messages, %zu departures; "
      "%zu flushes, %zu requests, %zu threads, %.1f seconds\n",
      rounds, figures.clientEvents, figures.lossEvents, figures.neighbourEvents, departures,
      figures.flushes, figures.requests, departures + figures.flushes, seconds.count());
}

}  // namespace
