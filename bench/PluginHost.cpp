#include "bench/PluginHost.h"

#include <fmt/format.h>

#include <chrono>
#include <thread>

#include "bench/Measure.h"
#include "lab/Error.h"
#include "refhost/framework/HostSides.h"
#include "refhost/framework/NetlinkCounters.h"

namespace bench {
namespace {

/// Whom an address belongs to before it gets its owner, so that there is a change to tell of.
constexpr char kStranger[] = "02:00:00:00:42:01";

constexpr std::chrono::microseconds kLook{20};
constexpr std::chrono::seconds kPatience{20};

void waitForDeletions(std::uint64_t total) {
  const auto end = std::chrono::steady_clock::now() + kPatience;
  while (framework::deletionCounters().deleted < total) {
    std::this_thread::sleep_for(kLook);
    if (std::chrono::steady_clock::now() > end) throw lab::Error("a flush deleted too little");
  }
}

}  // namespace

PluginHost::PluginHost(const std::string& path) : plugin_(path) {
  if (!plugin_.loaded()) throw lab::Error(plugin_.error());
  if (plugin_.start(zan_) != 0) throw lab::Error("the plug-in does not start");
}

void PluginHost::learn(NeighbourTable& table, const std::vector<Neighbour>& neighbours) {
  const std::uint64_t expected =
      framework::notificationCounters().delivered + 2 * neighbours.size();
  std::vector<Neighbour> strangers = neighbours;
  for (Neighbour& stranger : strangers) stranger.mac = kStranger;
  table.set(strangers);
  table.set(neighbours);
  const auto end = std::chrono::steady_clock::now() + kPatience;
  std::uint64_t before = 0;
  do {
    before = framework::notificationCounters().delivered;
    zan_.zanCom.hostSide().loop.turn(0);
  } while (framework::notificationCounters().delivered != before ||
           (before < expected && std::chrono::steady_clock::now() < end));
  if (before < expected) throw lab::Error("the plug-in was not told of all neighbours");
}

double PluginHost::leave(const ZanDsmTextList& macs) {
  const ZanDsmTextList nobody;
  zan_.zanDsm.dispatchEvent(ZAN_DSM_EVENT_SAP_CLIENTS, &macs);
  return secondsOf([&] { zan_.zanDsm.dispatchEvent(ZAN_DSM_EVENT_SAP_CLIENTS, &nobody); });
}

double PluginHost::flush(const std::string& mac, std::uint64_t entries) {
  const std::uint64_t requested = framework::deletionCounters().requested;
  const std::uint64_t deleted = framework::deletionCounters().deleted;
  const ZanDsmTextList present{mac};
  const ZanDsmTextList absent;
  zan_.zanDsm.dispatchEvent(ZAN_DSM_EVENT_SAP_CLIENTS, &present);
  const double seconds = secondsOf([&] {
    zan_.zanDsm.dispatchEvent(ZAN_DSM_EVENT_SAP_CLIENTS, &absent);
    waitForDeletions(deleted + entries);
  });
  plugin_.stop();
  static_cast<void>(framework::awaitDeletions(kPatience));
  const std::uint64_t asked = framework::deletionCounters().requested - requested;
  if (asked == entries) return seconds;
  throw lab::Error(fmt::format("a flush asked for {} deletions, not {}", asked, entries));
}

}  // namespace bench
