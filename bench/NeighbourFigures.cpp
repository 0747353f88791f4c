#include <fcntl.h>
#include <fmt/format.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <array>
#include <cstdint>
#include <memory>
#include <vector>

#include "bench/Figures.h"
#include "bench/NeighbourTable.h"
#include "bench/Report.h"
#include "bench/SilentLog.h"
#include "ctmgr/ZanNetlinkMgr.h"
#include "host/Zan.h"
#include "lab/Error.h"
#include "refhost/framework/NetlinkCounters.h"

namespace bench {
namespace {

constexpr std::size_t kFewKnown = 1000;
constexpr std::size_t kManyKnown = 100000;
constexpr std::size_t kBatches = 100;  ///< of a measurement

/// log(kManyKnown) / log(kFewKnown): by what the steps of a search grow.
constexpr double kGrowth = 1.67;

/// Number |index| of |known|, in an order in which neither addresses nor memory are neighbours.
std::size_t scattered(std::size_t index, std::size_t known) {
  constexpr std::size_t kStride = 7919;  // a prime: every number has its turn
  return index * kStride % known;
}

std::string macOf(std::size_t number) {
  return fmt::format("02:00:00:{:02x}:{:02x}:{:02x}", number >> 16U & 0xffU, number >> 8U & 0xffU,
                     number & 0xffU);
}

/// Notifications that are waiting on |fd|, read and dropped.
std::uint64_t drainBare(int fd) {
  static std::array<unsigned char, 32768> buffer;
  std::uint64_t count = 0;
  while (recv(fd, buffer.data(), buffer.size(), 0) > 0) ++count;
  return count;
}

void makeNonBlocking(int fd) {
  if (fcntl(fd, F_SETFL, O_NONBLOCK) != 0) throw lab::systemError("cannot use a netlink socket");
}

/// The plug-in's neighbour table with |known| neighbours.
class Manager final : public ZanNetlinkMgr {
 public:
  Manager(Zan& zan, ZanConnTrackUtils& utils, std::size_t known)
      : ZanNetlinkMgr(zan.zanCom, zan.zanDsm, utils) {
    makeNonBlocking(fd());
    while (nlSocket->NetlinkRecv(0, HandleNlMsg, this) >= 0) {
      // Who is there already is none of those that are counted.
    }
    for (std::size_t i = 0; i < known; ++i) {
      auto bytes = NeighbourTable::announcement({"10.0.0.1", macOf(scattered(i, known))});
      auto* msg = static_cast<nlmsghdr*>(static_cast<void*>(bytes.data()));
      HandleNlMsg(this, msg, msg->nlmsg_len);
    }
    if (neighInfoMap.size() != known) throw lab::Error("the plug-in knows too few neighbours");
  }

  [[nodiscard]] int fd() const { return nlSocket->socketFd; }

  /// Notifications that were waiting, handled as the event loop has them handled.
  std::uint64_t drain() {
    const std::uint64_t start = framework::notificationCounters().delivered;
    std::uint64_t before = 0;
    do {
      before = framework::notificationCounters().delivered;
      zanNetlinkEvtCallback(fd(), this);
    } while (framework::notificationCounters().delivered != before);
    return before - start;
  }
};

/// Three listeners to the same notifications; who is not measured drops them.
class Listeners {
 public:
  Listeners() {
    where_.run([this] {
      few_ = std::make_unique<Manager>(zan_, utils_, kFewKnown);
      many_ = std::make_unique<Manager>(zan_, utils_, kManyKnown);
      bare_ = std::make_unique<ZanNetlinkSocket>(NETLINK_ROUTE, RTMGRP_NEIGH);
    });
    makeNonBlocking(bare_->socketFd);
  }

  /// Seconds a notification.
  double few() {
    return measure(kFewKnown, [this] { return few_->drain(); });
  }
  double many() {
    return measure(kManyKnown, [this] { return many_->drain(); });
  }
  double bare() {
    return measure(kManyKnown, [this] { return drainBare(bare_->socketFd); });
  }

 private:
  template <typename Drain>
  double measure(std::size_t known, Drain drain) {
    double seconds = 0;
    std::uint64_t count = 0;
    for (std::size_t batch = 0; batch < kBatches; ++batch) {
      announce(known);
      seconds += secondsOf([&] { count += drain(); });
      for (const int fd : {few_->fd(), many_->fd(), bare_->socketFd}) drainBare(fd);
    }
    if (count < kBatches * NeighbourTable::kBatch) {
      throw lab::Error("notifications of neighbours were lost");
    }
    return seconds / static_cast<double>(count);
  }

  /// Gives the same few addresses the next of |known| MAC addresses.
  void announce(std::size_t known) {
    std::vector<Neighbour> batch;
    for (std::size_t i = 0; i < NeighbourTable::kBatch; ++i) {
      batch.push_back({fmt::format("10.0.0.{}", 1 + i), macOf(scattered(next_++, known))});
    }
    table_.set(batch);
  }

  lab::NetNamespace where_;
  NeighbourTable table_{where_};
  Zan zan_;
  ZanConnTrackUtils utils_{zan_};
  std::unique_ptr<Manager> few_;
  std::unique_ptr<Manager> many_;
  std::unique_ptr<ZanNetlinkSocket> bare_;
  std::size_t next_ = 0;
};

}  // namespace

void measureNeighbours(const Options& options, Report& report) {
  const SilentLog log;
  Listeners listeners;
  const auto few = [&] { return listeners.few(); };
  const auto many = [&] { return listeners.many(); };
  const auto bare = [&] { return listeners.bare(); };
  const auto add = [&](std::size_t known, const Measurement& subject) {
    const Comparison result = compare(options.effort, subject, bare);
    report.add({fmt::format("neighbour events, {} known", grouped(known)), "bare receive loop",
                result.ratio, "x", std::nullopt,
                fmt::format("{:.0f} a second, bare {:.0f}", 1 / result.subject.median,
                            1 / result.peer.median)});
  };
  add(kFewKnown, few);
  add(kManyKnown, many);
  const Comparison growth = compare(options.effort, many, few);
  const double received = repeat(options.effort, bare).median;
  const double ownGrowth = (growth.subject.median - received) / (growth.peer.median - received);
  report.add({"neighbour events, growth 1,000 to 100,000", "1,000 known", growth.ratio, "x",
              atMost(kGrowth),
              fmt::format("{:.2f} us an event, then {:.2f}; without the receiving {:.2f} times",
                          growth.peer.median * 1e6, growth.subject.median * 1e6, ownGrowth)});
}

}  // namespace bench
