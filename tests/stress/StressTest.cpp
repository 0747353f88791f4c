// The plug-in's threads at full load: events, neighbour messages, clean-ups and deletions at once,
// and managers and hosts that go while clean-ups work and sleep.
//
// Rounds follow one another. In each a host and a manager live on a table of their own:
//
//   24 clients come, one after the other; every other time the last two leave in one event. Four
//   more are neighbours all the time and never leave.
//   Each time two upstream addresses are lost, and the kernel announces and loses neighbours.
//   An odd round waits until the clean-ups have flushed twice more. Then every entry of those who
//   left was requested three times, and every entry of the four once for each loss of its address.
//   An even round ends at once, while clean-ups work and sleep; those that sleep wake in the middle
//   of the next round, and must touch nothing any more.
#include <gtest/gtest.h>
#include <linux/rtnetlink.h>
#include <poll.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <set>

#include "base/Patience.h"
#include "ctmgr/ZanConnTrackMgr.h"
#include "tests/PresentManager.h"
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

  void noteRequest(int /*fd*/, const nlmsghdr* msg) override {
    const auto* end = reinterpret_cast<const std::uint8_t*>(msg) + msg->nlmsg_len;
    const int port = std::max(end[-12] << 8 | end[-11], end[-4] << 8 | end[-3]);
    const std::size_t index = sent.fetch_add(1, kRelaxed);
    if (index < requests.size()) requests[index] = {{msg->nlmsg_len, port}, msg->nlmsg_seq};
  }
  void log(int /*level*/, int /*module*/, const char* /*format*/, ...) override {}

  std::atomic<std::size_t> sent{0};
  std::vector<Request> requests = std::vector<Request>(2 * kRequests);
};

std::string upstream(int index) {
  return "7.7.7." + std::to_string(100 + index % kEntries);
}

std::string ipv4Of(int client) {
  return "10.1.1." + std::to_string(100 + client);
}

std::string ipv6Of(int client) {
  return "2001:0db8:0000:0000:0000:0000:0000:0" + std::to_string(100 + client);
}

/// As told at the head of this file; |number| counts from 0. The first kLeaving clients leave.
class Round {
 public:
  explicit Round(int number) : number_(number) {}

  void run() {
    ASSERT_EQ(init_ct_mgr(&host_.zan), 0);
    const TableFile table;
    PresentManager::read(table);
    writeTable(table);
    if (!whole_) sleepersHeld.store(true, kRelaxed);
    for (int client = 0; client < kLeaving; ++client) {
      if (client == kLeaving / 2 && whole_) sleepersHeld.store(false, kRelaxed);
      sendEvents(client);
    }
    if (whole_) {
      EXPECT_TRUE(base::eventually([this] { return host_.sent.load(kRelaxed) >= kRequests; }));
    }
    EXPECT_EQ(PresentManager::stop(), 0) << "who waits for held sleepers does not return";
    ASSERT_LE(host_.sent.load(kRelaxed), host_.requests.size());
    host_.requests.resize(host_.sent.load(kRelaxed));
    check();
  }

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
      text +=
          tableEntry(ipv4Of(client), port(entry), stays ? upstream(entry / kClients) : "7.7.7.7");
      if (!stays) text += tableEntry(ipv6Of(client), port(entry));
    }
    table.write(text);
  }

  void notify(std::uint8_t type, int client, const std::string& address) {
    const Bytes mac = {10, 0, 0, 0, 0, static_cast<std::uint8_t>(client)};
    host_.receive(kNeighbourSocket, neighbourMessage(type, address, mac));
  }

  /// |client| comes; every other time it leaves at once, with the one before.
  void sendEvents(int client) {
    char mac[32];
    std::snprintf(mac, sizeof(mac), "0a:00:00:00:00:%02x", client);
    for (int other = 0; other < kClients; ++other) {
      const int staying = kLeaving + other % kStaying;
      notify(RTM_NEWNEIGH, staying, ipv4Of(staying));
      notify(RTM_DELNEIGH, other, ipv6Of(other));
    }
    notify(RTM_NEWNEIGH, client, ipv4Of(client));
    notify(RTM_NEWNEIGH, client, ipv6Of(client));
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
    EXPECT_EQ(sequence.size(), host_.requests.size()) << "a number was used twice";
    EXPECT_EQ(*sequence.rbegin(), host_.requests.size()) << "a number was left out";
    for (int entry = 0; entry < kTable; ++entry) {
      const int client = entry % kClients;
      const bool stays = client >= kLeaving;
      const std::size_t flushes = counts[{72, port(client)}];
      ASSERT_GE(flushes, stays ? kLosses : whole_ ? 3U : 1U) << "client " << client;
      ASSERT_LE(flushes, stays ? kLosses : 3U) << "client " << client;
      ASSERT_EQ((counts[{72, port(entry)}]), flushes) << "a part of a flush, client " << client;
      ASSERT_EQ((counts[{96, port(entry)}]), stays ? 0 : flushes) << "client " << client;
    }
    EXPECT_EQ(counts.size(), 2U * kTable) << "a tuple of another round";
  }

  const int number_;
  const bool whole_ = number_ % 2 == 1;
  StressHost host_;
  ZanDsmTextList clients_;
};

TEST(StressTest, EveryFlushIsCarriedOutOnceAndNothingOutlivesItsManager) {
  const char* wanted = std::getenv("ZAN_STRESS_SECONDS");
  const auto end = Clock::now() + std::chrono::seconds(wanted ? std::atoi(wanted) : 10);
  int rounds = 0;
  std::size_t requests = 0;
  while (!HasFailure() && (Clock::now() < end || rounds % 2 == 1)) {
    const auto round = std::make_unique<Round>(rounds++);
    round->run();
    requests += round->requests();
  }
  std::printf("%d rounds: %zu requests\n", rounds, requests);
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
