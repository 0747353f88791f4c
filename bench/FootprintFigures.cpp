#include <fmt/format.h>
#include <linux/rtnetlink.h>

#include <filesystem>
#include <fstream>
#include <list>
#include <sstream>

#include "bench/BenchTable.h"
#include "bench/ChildRun.h"
#include "bench/Figures.h"
#include "bench/HeapMeter.h"
#include "bench/PluginHost.h"
#include "bench/Report.h"
#include "bench/SilentLog.h"
#include "ctmgr/ZanConnTrackFilter.h"
#include "host/ZanNetlinkSocket.h"
#include "lab/Error.h"

namespace bench {
namespace {

constexpr TableShape kMatching{60000, 1};

/// Two lists of what was found: the one that the scan leaves and the worker's copy. The peak also
/// holds a few blocks that are there once a flush, whatever its size, such as texts of addresses
/// and the states of threads.
constexpr Target kPeakNodes = atMost(2.01);

constexpr int kStarts = 50;
constexpr double kKibibyte = 1024;

/// Bytes of a node of a list of matches.
double nodeBytes() {
  const HeapMeter meter;
  const std::list<ZanConnTrackFilter_s> one(1);
  return static_cast<double>(meter.bytes());
}

/// KiB of the mappings of one file.
struct Mapped {
  double resident = 0;
  double dirty = 0;  ///< private to this process
};

Mapped mappedOf(const std::string& file) {
  const std::string path = std::filesystem::canonical(file);
  std::ifstream maps("/proc/self/smaps");
  Mapped sum;
  bool ours = false;
  for (std::string line; std::getline(maps, line);) {
    std::istringstream words(line);
    std::string word;
    double value = 0;
    words >> word >> value;
    if (word.back() != ':') {
      ours = line.ends_with(" " + path);
    } else if (ours && word == "Rss:") {
      sum.resident += value;
    } else if (ours && word == "Private_Dirty:") {
      sum.dirty += value;
    }
  }
  return sum;
}

void measurePeak(const Options& options, Report& report) {
  constexpr Effort kFewRounds{3, 0};  // memory does not depend on who else uses the machine
  BenchTable table(kMatching);
  NeighbourTable neighbours(table.where());
  const Client client = BenchTable::client(0);
  const double node = nodeBytes();
  double bytes = 0;
  const Spread nodes = repeat(kFewRounds, [&] {
    bytes = inChild([&]() -> std::vector<double> {
              PluginHost host(options.plugin);
              host.learn(neighbours, {{client.ipv4, client.mac}, {client.ipv6, client.mac}});
              const HeapMeter meter;
              host.flush(client.mac, kMatching.entries);
              return {static_cast<double>(meter.peakBytes())};
            }).front();
    table.refill(0);
    const double nodesOfEntry = bytes / node / static_cast<double>(kMatching.entries);
    if (nodesOfEntry < 1) throw lab::Error("the plug-in takes memory that is not counted");
    return nodesOfEntry;
  });
  report.add({"peak heap of a flush of 60,000", "", nodes, "nodes", kPeakNodes,
              fmt::format("list nodes an entry; {:.0f} bytes, a node takes {:.0f}", bytes, node)});
}

/// Bytes of heap that the host's two sockets for a plug-in take.
double hostSocketBytes() {
  const HeapMeter meter;
  const ZanNetlinkSocket neighbours(NETLINK_ROUTE, RTMGRP_NEIGH);
  const ZanNetlinkSocket requests(NETLINK_NETFILTER, 0);
  return static_cast<double>(meter.bytes());
}

void measureRest(const Options& options, Report& report) {
  std::vector<double> parts;
  const Spread total = repeat(options.effort, [&] {
    parts = inChild([&]() -> std::vector<double> {
      const double sockets = hostSocketBytes() / kKibibyte;
      const HeapMeter meter;
      const PluginHost host(options.plugin);
      const auto heap = static_cast<double>(meter.bytes()) / kKibibyte;
      const Mapped mapped = mappedOf(options.plugin);
      if (mapped.resident == 0) throw lab::Error("the plug-in is mapped from another file");
      return {mapped.resident, mapped.dirty, heap, sockets};
    });
    return parts.at(0) + parts.at(2);
  });
  report.add(
      {"resident cost of the loaded plug-in at rest", "", total, "KiB", std::nullopt,
       fmt::format("mapped {:.0f} KiB, {:.0f} of them its own; heap {:.1f} KiB, {:.1f} of them "
                   "the host's sockets",
                   parts.at(0), parts.at(1), parts.at(2), parts.at(3))});
}

void measureStarts(const Options& options, Report& report) {
  const Spread microseconds = repeat(options.effort, [&] {
    return inChild([&]() -> std::vector<double> {
             Zan zan;
             zanhost::Plugin plugin(options.plugin);
             if (!plugin.loaded()) throw lab::Error(plugin.error());
             const double seconds = secondsOf([&] {
               for (int i = 0; i < kStarts; ++i) {
                 if (plugin.start(zan) != 0 || plugin.stop() != 0) {
                   throw lab::Error("the plug-in does not start or does not stop");
                 }
               }
             });
             return {seconds * 1e6 / kStarts};
           })
        .front();
  });
  report.add({"init_ct_mgr + deinit_ct_mgr", "", microseconds, "us"});
}

}  // namespace

void measureFootprint(const Options& options, Report& report) {
  const SilentLog log;
  measurePeak(options, report);
  measureRest(options, report);
  measureStarts(options, report);
}

}  // namespace bench
