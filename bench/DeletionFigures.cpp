#include <arpa/inet.h>
#include <fmt/format.h>

#include <array>
#include <cstring>
#include <list>
#include <vector>

#include "bench/BenchTable.h"
#include "bench/Figures.h"
#include "bench/Report.h"
#include "bench/SilentLog.h"
#include "ctmgr/NetlinkRequest.h"
#include "ctmgr/ZanConnTrackMgr.h"
#include "lab/Error.h"
#include "refhost/framework/NetlinkCounters.h"

namespace bench {
namespace {

constexpr TableShape kDeletions{20000, 1, false};

/// The manager with a list to delete, as a flush leaves it to the worker.
class Worker final : public ZanConnTrackMgr {
 public:
  using ZanConnTrackMgr::ZanConnTrackMgr;

  void leave(const std::list<ZanConnTrackFilter_s>& entries) {
    const MutexLock lock(listMutex);
    v4DeleteList = entries;
  }
};

/// A delete request for IPv4, ready to be sent.
struct Request {
  static constexpr std::size_t kSize = 72;
  alignas(nlmsghdr) std::array<unsigned char, kSize> bytes;
};

std::list<ZanConnTrackFilter_s> recordsOf(const BenchTable& table) {
  std::list<ZanConnTrackFilter_s> records;
  for (const auto& entry : table.entriesOf(0)) {
    ZanConnTrackFilter_s record{};
    record.af = AF_INET;
    record.protocol = entry.protocol;
    record.sport = entry.original.sourcePort;
    record.dport = entry.original.destinationPort;
    inet_pton(AF_INET, entry.original.source.c_str(), record.src);
    inet_pton(AF_INET, entry.original.destination.c_str(), record.dest);
    records.push_back(record);
  }
  return records;
}

Request requestFor(const ZanConnTrackFilter_s& record, ZanConnTrackMgr& manager) {
  ZanConnTrackMgr::ctTuple tuple{};
  std::memcpy(tuple.src, record.src, sizeof(in_addr));
  std::memcpy(tuple.dst, record.dest, sizeof(in_addr));
  tuple.l3protonum = AF_INET;
  tuple.protonum = static_cast<std::uint8_t>(record.protocol);
  tuple.srcPrt = htons(record.sport);
  tuple.dstPrt = htons(record.dport);
  alignas(nlmsghdr) std::array<unsigned char, DELETE_MSG_MAX_LEN> buffer{};
  auto* msg = static_cast<nlmsghdr*>(static_cast<void*>(buffer.data()));
  manager.fillNetlinkHeader(msg, AF_INET);
  if (manager.fillTupleInfo(msg, &tuple) == 0 || msg->nlmsg_len != Request::kSize) {
    throw lab::Error("a delete request has an unexpected size");
  }
  Request request{};
  std::memcpy(request.bytes.data(), buffer.data(), Request::kSize);
  return request;
}

/// Deletions a second of |work|, which is to delete all of |table|.
template <typename Work>
double deletionRate(BenchTable& table, Work work) {
  const std::uint64_t before = framework::deletionCounters().deleted;
  const double seconds = secondsOf(work);
  if (framework::deletionCounters().deleted - before != table.shape().entries) {
    throw lab::Error("a deletion left entries in the table");
  }
  table.refill(0);
  return static_cast<double>(table.shape().entries) / seconds;
}

}  // namespace

void measureDeletions(const Options& options, Report& report) {
  const SilentLog log;
  BenchTable table(kDeletions);
  const std::list<ZanConnTrackFilter_s> records = recordsOf(table);
  Zan zan;
  Worker worker(zan);
  std::vector<Request> requests;
  for (const auto& record : records) requests.push_back(requestFor(record, worker));
  constexpr unsigned int kTag = 273;
  ZanNetlinkSocket socket(NETLINK_NETFILTER, kTag);
  const auto byWorker = [&] {
    worker.leave(records);
    return deletionRate(table, [&] { ZanConnTrackMgr::deleteConntrackEntries(&worker); });
  };
  const auto byLoop = [&] {
    return deletionRate(table, [&] {
      for (Request& request : requests) {
        socket.sendConntrackNetlinkMsg(
            static_cast<nlmsghdr*>(static_cast<void*>(request.bytes.data())));
      }
    });
  };
  const Comparison result = compare(options.effort, byWorker, byLoop);
  report.add(
      {"deletions a second by the worker", "prebuilt requests", result.ratio, "x", atLeast(0.92),
       fmt::format("{:.0f} a second, loop {:.0f}", result.subject.median, result.peer.median)});
}

}  // namespace bench
