// Deletions a second by the loop that the worker runs, against one over requests that stand ready.
#include <arpa/inet.h>
#include <fmt/format.h>

#include <cstring>
#include <vector>

#include "bench/BenchTable.h"
#include "bench/Figures.h"
#include "bench/Report.h"
#include "bench/Scanner.h"
#include "ctmgr/NetlinkRequest.h"
#include "ctmgr/ZanConnTrackMgr.h"
#include "lab/Error.h"
#include "refhost/framework/NetlinkCounters.h"

namespace bench {
namespace {

constexpr std::size_t kDeletions = 20000;

/// As many bytes as the kernel gets.
using Request = std::vector<unsigned char>;

nlmsghdr* messageIn(unsigned char* bytes) {
  return static_cast<nlmsghdr*>(static_cast<void*>(bytes));
}

Request requestFor(const ZanConnTrackFilter_s& record) {
  ctmgr::ConntrackTuple tuple{};
  std::memcpy(tuple.src, record.src, sizeof(tuple.src));
  std::memcpy(tuple.dst, record.dest, sizeof(tuple.dst));
  tuple.l3protonum = AF_INET;
  tuple.protonum = static_cast<std::uint8_t>(record.protocol);
  tuple.srcPrt = htons(record.sport);
  tuple.dstPrt = htons(record.dport);
  Request request(ctmgr::DELETE_MSG_MAX_LEN);
  nlmsghdr* message = messageIn(request.data());
  ctmgr::fillDeleteHeader(message, AF_INET, 1);
  if (!ctmgr::appendTuple(message, tuple)) throw lab::Error("a delete request does not fit");
  request.resize(message->nlmsg_len);
  return request;
}

/// Deletions a second of |work|, which is to delete all of |table|.
template <typename Work>
double deletionRate(BenchTable& table, Work work) {
  const std::uint64_t before = framework::deletionCounters().deleted;
  const double seconds = secondsOf(work);
  if (framework::deletionCounters().deleted - before != kDeletions) {
    throw lab::Error("a deletion left entries in the table");
  }
  table.refill(0);
  return kDeletions / seconds;
}

}  // namespace

void measureDeletions(const Options& options, Report& report) {
  BenchTable table({kDeletions, 1, Families::kIpv4});
  auto records = Scanner<>().scan(controlOf(BenchTable::client(0)), kDeletions).v4;
  std::vector<Request> requests;
  for (const auto& record : records) requests.push_back(requestFor(record));
  Zan zan;
  ZanConnTrackMgr manager(zan);
  constexpr unsigned int kTag = 273;
  ZanNetlinkSocket socket(NETLINK_NETFILTER, kTag);
  const auto byManager = [&] {
    return deletionRate(table, [&] { manager.deleteV4ConntrackEntries(records); });
  };
  const auto byLoop = [&] {
    return deletionRate(table, [&] {
      for (Request& request : requests) socket.sendConntrackNetlinkMsg(messageIn(request.data()));
    });
  };
  const Comparison result = compare(options.effort, byManager, byLoop);
  report.add(
      {"deletions a second by the worker", "prebuilt requests", result.ratio, "x", atLeast(0.92),
       fmt::format("{:.0f} a second, loop {:.0f}", result.subject.median, result.peer.median)});
}

}  // namespace bench
