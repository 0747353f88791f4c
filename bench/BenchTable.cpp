// The entries of a table, and how it is filled.
#include "bench/BenchTable.h"

#include <fmt/format.h>
#include <sched.h>

#include <fstream>
#include <utility>

#include "lab/ConntrackTable.h"
#include "lab/Error.h"

namespace bench {
namespace {

constexpr char kUpstreamAddress[] = "100.64.7.7";
/// What all entries have in common, in conntrack(8)'s words.
constexpr char kInsert[] = "-I --timeout 3600 --status SEEN_REPLY,ASSURED";
constexpr std::size_t kFirstPort = 1024;
constexpr std::size_t kPorts = 60000;

/// The limit is that of all namespaces, and 65536 where there is little memory.
void checkRoomFor(std::size_t entries) {
  constexpr char kLimit[] = "/proc/sys/net/netfilter/nf_conntrack_max";
  std::size_t limit = 0;
  std::ifstream(kLimit) >> limit;
  if (limit >= entries) return;
  throw lab::Error(fmt::format("{} holds {}, but a table of {} is to be measured: raise it", kLimit,
                               limit, entries));
}

}  // namespace

BenchTable::BenchTable(const TableShape& shape) : shape_(shape) {
  if (setns(where_.fd(), CLONE_NEWNET) != 0) {
    throw lab::systemError("cannot enter the namespace of the table");
  }
  fill();
}

BenchTable::~BenchTable() {
  try {
    lab::clearConntrackTable(where_);
  } catch (const lab::Error&) {
    // What is left goes with the namespace, only later.
  }
}

void BenchTable::fill() {
  checkRoomFor(shape_.entries);
  for (std::size_t number = 0; number < shape_.clients; ++number) refill(number);
}

void BenchTable::resize(std::size_t entries) {
  lab::clearConntrackTable(where_);
  shape_.entries = entries;
  fill();
}

Client BenchTable::client(std::size_t number) {
  const std::size_t host = 2 + number;
  return {fmt::format("02:00:00:00:43:{:02x}", host), fmt::format("192.168.43.{}", host),
          fmt::format("2001:db8:43::{:x}", host),
          fmt::format("2001:0db8:0043:0000:0000:0000:0000:{:04x}", host)};
}

bool BenchTable::isIpv6(std::size_t index) const {
  return shape_.families == Families::kQuarterIpv6 && index % 8 >= 6;
}

std::size_t BenchTable::entriesOf(std::size_t number) const {
  return number < shape_.clients ? shape_.entries / shape_.clients : 0;
}

std::size_t BenchTable::ipv4EntriesOf(std::size_t number) const {
  std::size_t ipv4 = 0;
  for (std::size_t i = 0; i < entriesOf(number); ++i) {
    if (!isIpv6(i)) ++ipv4;
  }
  return ipv4;
}

void BenchTable::refill(std::size_t number) {
  const Client owner = client(number);
  std::string lines;
  for (std::size_t i = 0; i < entriesOf(number); ++i) {
    const std::size_t port = kFirstPort + i % kPorts;
    const std::size_t server = 1 + i / kPorts;
    lines += fmt::format("{} {} --sport {} --dport 443", kInsert,
                         i % 2 == 0 ? "-p tcp --state ESTABLISHED" : "-p udp", port);
    if (isIpv6(i)) {
      lines += fmt::format(" -s {} -d 2001:db8:5e::{:x}:{:x}\n", owner.ipv6, number, server);
    } else {
      const std::string address = fmt::format("198.18.{}.{}", number, server);
      lines += fmt::format(" -s {} -d {} -r {} -q {} --reply-port-src 443 --reply-port-dst {}\n",
                           owner.ipv4, address, address, kUpstreamAddress, port);
    }
  }
  if (!lines.empty()) lab::insertConntrackEntries(where_, lines);
}

}  // namespace bench
