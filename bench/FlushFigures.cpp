#include <arpa/inet.h>
#include <fcntl.h>
#include <fmt/format.h>

#include <array>
#include <cstring>
#include <list>

#include "bench/BenchTable.h"
#include "bench/ChildRun.h"
#include "bench/Figures.h"
#include "bench/PluginHost.h"
#include "bench/Report.h"
#include "bench/SilentLog.h"
#include "ctmgr/NetlinkRequest.h"
#include "ctmgr/ZanConnTrackMgr.h"
#include "lab/Error.h"
#include "lab/Process.h"
#include "refhost/HostLog.h"
#include "refhost/LogSink.h"
#include "refhost/NetlinkCounters.h"
#include "refhost/UniqueFd.h"

namespace bench {
namespace {

constexpr TableShape kHotspot{60000, 100, false};
constexpr std::size_t kClientEntries = 600;

constexpr TableShape kDeletions{20000, 1, false};

/// A client of kHotspot goes, and comes back with its entries.
class Departure {
 public:
  explicit Departure(const std::string& plugin) : plugin_(plugin) {}

  /// Seconds from the event to the last acknowledgement, the host's log at its default threshold.
  double seenByPlugin(bool knowsIpv6) {
    std::vector<Neighbour> known{{client_.ipv4, client_.mac}};
    if (knowsIpv6) known.push_back({client_.ipv6, client_.mac});
    const auto results = inChild([&]() -> std::vector<double> {
      const UniqueFd nowhere(open("/dev/null", O_WRONLY | O_CLOEXEC));
      const LogSink log(nowhere.get(), LogSink::Format::kText, kHostNotice);
      PluginHost host(plugin_);
      host.learn(neighbours_, known);
      return {host.flush(client_.mac, kClientEntries)};
    });
    table_.refill(BenchTable::kLoneClient);
    return results.front();
  }

  /// Seconds of the run of conntrack(8) that deletes the same entries.
  double seenByConntrack() {
    lab::CommandResult run;
    const double seconds = secondsOf([&] {
      run = lab::Process::run({"conntrack", "-D", "-s", client_.ipv4}, &table_.where());
    });
    const std::string expected = fmt::format(" {} flow entries have been deleted", kClientEntries);
    if (!run.status.success() || run.errors.find(expected) == std::string::npos) {
      throw lab::Error("conntrack did not delete the client's entries: " + run.errors);
    }
    table_.refill(BenchTable::kLoneClient);
    return seconds;
  }

 private:
  std::string plugin_;
  Client client_ = BenchTable::client(BenchTable::kLoneClient);
  BenchTable table_{kHotspot};
  NeighbourTable neighbours_{table_.where()};
};

/// The manager with a list to delete, as a flush leaves it to the worker.
class Worker final : public ZanConnTrackMgr {
 public:
  using ZanConnTrackMgr::ZanConnTrackMgr;

  void leave(const std::list<ZanConnTrackFilter_s>& entries) { v4DeleteList = entries; }
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
  const std::uint64_t before = deletionCounters().deleted;
  const double seconds = secondsOf(work);
  if (deletionCounters().deleted - before != table.shape().entries) {
    throw lab::Error("a deletion left entries in the table");
  }
  table.refill(0);
  return static_cast<double>(table.shape().entries) / seconds;
}

void measureDepartures(const Options& options, Report& report) {
  Departure departure(options.plugin);
  for (const bool knowsIpv6 : {true, false}) {
    const Comparison result = compare(
        options.effort, [&] { return departure.seenByPlugin(knowsIpv6); },
        [&] { return departure.seenByConntrack(); });
    report.add(
        {std::string("flush of 1 % of 60,000") + (knowsIpv6 ? "" : ", no IPv6 address known"),
         "conntrack -D -s", result.ratio, "x",
         knowsIpv6 ? std::optional(atMost(0.70)) : std::nullopt,
         fmt::format("{:.1f} ms, conntrack {:.1f} ms", result.subject.median * 1e3,
                     result.peer.median * 1e3)});
  }
}

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
      {"deletions a second by the worker", "prebuilt requests", result.ratio, "x", atLeast(0.95),
       fmt::format("{:.0f} a second, loop {:.0f}", result.subject.median, result.peer.median)});
}

}  // namespace

void measureFlushes(const Options& options, Report& report) {
  measureDepartures(options, report);
  measureDeletions(options, report);
}

}  // namespace bench
