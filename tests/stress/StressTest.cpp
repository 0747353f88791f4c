// The plug-in's threads at full load: events, neighbour messages, clean-ups and deletions at once,
// and managers and hosts that go while clean-ups work and sleep.
#include <gtest/gtest.h>
#include <linux/rtnetlink.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <set>

#include "base/Patience.h"
#include "ctmgr/ZanConnTrackMgr.h"
#include "tests/Deletions.h"
#include "tests/RecordingHost.h"

namespace {

using Clock = std::chrono::steady_clock;

// Nothing in here may order the plug-in's threads, which would hide races: no lock, and no order
// of memory but the relaxed one.
constexpr auto kRelaxed = std::memory_order_relaxed;

std::atomic<bool> sleepersHeld;
std::atomic<unsigned int> sleeps;

constexpr int kLeaving = 24;
constexpr int kStaying = 4;
constexpr int kClients = kLeaving + kStaying;
constexpr int kEntries = 6;  ///< of each client; of one that stays, each over another upstream
constexpr int kTable = kEntries * kClients;
constexpr std::size_t kLosses = 2 * kLeaving / kEntries;  ///< of each upstream address
constexpr std::size_t kRequests = 3UL * 2 * kLeaving * kEntries + kLosses * kStaying * kEntries;

/// What of the host the workers call does without the recorder's lock.
class StressHost final : public RecordingHost {
 public:
  using Tuple = std::pair<std::uint32_t, int>;  ///< length of the request and port of the client
  struct Request {
    Tuple tuple;
    std::uint32_t sequence;
  };

  void recordRequest(int /*fd*/, const nlmsghdr* msg) override {
    const auto* end = reinterpret_cast<const std::uint8_t*>(msg) + msg->nlmsg_len;
    const int port = std::max(end[-12] << 8 | end[-11], end[-4] << 8 | end[-3]);
    const std::size_t index = sent.fetch_add(1, kRelaxed);
    if (index < requests.size()) requests[index] = {{msg->nlmsg_len, port}, msg->nlmsg_seq};
  }
  void log(int /*level*/, int /*module*/, const char* /*format*/, ...) override {}

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

std::string address(int client, bool ipv6) {
  const std::string own = std::to_string(100 + client);
  return ipv6 ? "2001:0db8:0000:0000:0000:0000:0000:0" + own : "10.1.1." + own;
}

/// One host's and manager's life with clients, addresses and a table of their own. The first
/// kLeaving clients come and go, the others stay. The clean-ups of every other round run to their
/// end; else the manager goes while they work and sleep, and those that are held then wake in the
/// middle of the next round.
class Round {
 public:
  explicit Round(int number) : number_(number) {}

  void run() {
    ASSERT_EQ(init_ct_mgr(&host_.zan), 0);
    const TableFile table;
    close(std::exchange(Manager::fd(), dup(table.fd())));
    writeTable(table);
    if (!whole_) sleepersHeld.store(true, kRelaxed);
    for (int client = 0; client < kLeaving; ++client) {
      if (client == kLeaving / 2 && whole_) sleepersHeld.store(false, kRelaxed);
      sendEvents(client);
    }
    const auto complete = [this] { return host_.sent.load(kRelaxed) >= kRequests; };
    EXPECT_TRUE(!whole_ || base::eventually(complete));
    EXPECT_EQ(stopAndAwaitDeletions(), 0) << "who waits for held sleepers does not return";
    ASSERT_LE(host_.sent.load(kRelaxed), host_.requests.size());
    host_.requests.resize(host_.sent.load(kRelaxed));
    check();
  }

  /// Of all clients that left, and of all upstream addresses that were lost.
  [[nodiscard]] std::size_t flushes() const { return flushes_ + kLeaving; }
  [[nodiscard]] std::size_t requests() const { return host_.requests.size(); }

 private:
  /// Unlike every other of this round and of those around it; the servers' ports are lower.
  [[nodiscard]] int port(int entry) const { return 1000 + number_ % 300 * kTable + entry; }

  /// The entries of each client lie apart, from the head of the table to its end.
  void writeTable(const TableFile& table) const {
    std::string text;
    for (int entry = 0; entry < kTable; ++entry) {
      const int client = entry % kClients;
      const bool stays = client >= kLeaving;
      text += tableEntry(address(client, false), port(entry),
                         stays ? upstream(entry / kClients) : "7.7.7.7");
      if (!stays) text += tableEntry(address(client, true), port(entry));
    }
    table.write(text);
  }

  void notify(std::uint8_t type, int client, bool ipv6) {
    const Bytes mac = {10, 0, 0, 0, 0, static_cast<std::uint8_t>(client)};
    host_.receive(1000, neighbourMessage(
                            type, ipv6 ? AF_INET6 : AF_INET,
                            {{NDA_DST, addressBytes(address(client, ipv6))}, {NDA_LLADDR, mac}}));
  }

  /// |client| comes; every other time it leaves at once, with the one before.
  void sendEvents(int client) {
    char mac[32];
    std::snprintf(mac, sizeof(mac), "0a:00:00:00:00:%02x", client);
    for (int other = 0; other < kClients; ++other) {
      notify(RTM_NEWNEIGH, kLeaving + other % kStaying, false);
      notify(RTM_DELNEIGH, other, true);
    }
    for (const bool ipv6 : {false, true}) notify(RTM_NEWNEIGH, client, ipv6);
    clients_.emplace_back(mac);
    host_.zan.zanDsm.dispatchEvent(ZAN_DSM_EVENT_SAP_CLIENTS, &clients_);
    if (client % 2 == 1) clients_.clear();
    host_.zan.zanDsm.dispatchEvent(ZAN_DSM_EVENT_SAP_CLIENTS, &clients_);
    const ZanDsmTextList lost = {upstream(client), upstream(client + 1)};
    host_.zan.zanDsm.dispatchEvent(ZAN_DSM_EVENT_UPSTREAM_IP_LOST, &lost);
  }

  /// Every tuple was requested once for each flush that selected it, and no sequence number was
  /// left out or used twice.
  void check() {
    std::map<StressHost::Tuple, std::size_t> counts;
    std::set<std::uint32_t> sequence;
    for (const StressHost::Request& request : host_.requests) {
      ++counts[request.tuple];
      sequence.insert(request.sequence);
    }
    EXPECT_EQ(sequence.size(), host_.requests.size());
    EXPECT_EQ(*sequence.rbegin(), host_.requests.size());
    for (int entry = 0; entry < kTable; ++entry) {
      const int client = entry % kClients;
      const bool stays = client >= kLeaving;
      const std::size_t flushes = counts[{72, port(client)}];
      if (entry < kLeaving) flushes_ += flushes;
      ASSERT_GE(flushes, stays ? kLosses : whole_ ? 3U : 1U);
      ASSERT_LE(flushes, stays ? kLosses : 3U);
      ASSERT_EQ((counts[{72, port(entry)}]), flushes) << "a part of a flush, client " << client;
      ASSERT_EQ((counts[{96, port(entry)}]), stays ? 0 : flushes) << "client " << client;
    }
    EXPECT_EQ(counts.size(), 2U * kTable) << "a tuple of another round";
  }

  std::size_t flushes_ = 0;
  const int number_;
  const bool whole_ = number_ % 2 == 1;
  StressHost host_;
  ZanDsmTextList clients_;
};

TEST(StressTest, EveryFlushIsCarriedOutOnceAndNothingOutlivesItsManager) {
  const char* wanted = std::getenv("ZAN_STRESS_SECONDS");
  const auto end = Clock::now() + std::chrono::seconds(wanted ? std::atoi(wanted) : 10);
  int rounds = 0;
  std::size_t flushes = 0;
  std::size_t requests = 0;
  while (!HasFailure() && (Clock::now() < end || rounds % 2 == 1)) {
    const auto round = std::make_unique<Round>(rounds++);
    round->run();
    flushes += round->flushes();
    requests += round->requests();
  }
  std::printf("%d rounds: %d events 27, %d events 28; %zu flushes, %zu requests, %zu threads\n",
              rounds, 2 * kLeaving * rounds, kLeaving * rounds, flushes, requests,
              flushes + std::size_t{kLeaving} * static_cast<std::size_t>(rounds));
}

}  // namespace

/// The pause of the clean-ups takes a millisecond here; for every other sleeper as long as sleepers
/// are held.
extern "C" int nanosleep(const timespec* pause, timespec* /*left*/) {
  if (pause->tv_sec != SAP_CLIENT_RECHECK_DELAY) return ppoll(nullptr, 0, pause, nullptr);
  const bool held = sleeps.fetch_add(1, kRelaxed) % 2 == 0;
  do {
    poll(nullptr, 0, 1);
  } while (held && sleepersHeld.load(kRelaxed));
  return 0;
}
