// How the client list changes, and what a client that comes back needs.
#include "refhost/zanhost/HotspotClients.h"

#include <algorithm>
#include <utility>

#include "refhost/framework/HostLog.h"
#include "refhost/framework/HostSides.h"

namespace zanhost {
namespace {

/// Those of |list| that are not in |others|.
std::set<std::string> without(const HotspotClients::Names& list,
                              const HotspotClients::Names& others) {
  std::set<std::string> rest(list.begin(), list.end());
  for (const std::string& other : others) rest.erase(other);
  return rest;
}

}  // namespace

HotspotClients::HotspotClients(Zan& zan, std::chrono::milliseconds cleanUp, Ask ask)
    : zan_(zan),
      cleanUp_(cleanUp),
      ask_(std::move(ask)),
      timer_(HostSides::loopOf(zan.zanCom), [this] { cleanUpPast(); }) {}

std::size_t HotspotClients::replaceTyped(const Names& typed) {
  typed_ = typed;
  update();
  return without(announced_, HostSides::sapClientsOf(zan_.zanDsm)).size();
}

void HotspotClients::replaceStations(const std::set<std::string>& stations) {
  stations_ = stations;
  announceStations();
}

void HotspotClients::announceStations() {
  if (cleanUps_.size() >= kMostCleanUps) return;
  update();
  const Names& now = HostSides::sapClientsOf(zan_.zanDsm);
  if (now == announced_) return;
  HOST_LOG(kLogNotice, "clients: %zu now, %zu departed", now.size(),
           without(announced_, now).size());
  dispatch();
}

void HotspotClients::update() {
  Names& list = HostSides::sapClientsOf(zan_.zanDsm);
  list = typed_;
  for (const std::string& station : stations_) {
    if (std::find(typed_.begin(), typed_.end(), station) == typed_.end()) list.push_back(station);
  }
}

void HotspotClients::dispatch() {
  constexpr int kReadings = 4;  // two flushes, each of which may wait for somebody else's reading
  const ZanDsmTextList now = HostSides::sapClientsOf(zan_.zanDsm);
  const Names before = std::exchange(announced_, now);
  const auto begin = Clock::now();
  zan_.zanDsm.dispatchEvent(ZAN_DSM_EVENT_SAP_CLIENTS, &now);
  const auto end = Clock::now();
  // The departures have been read for before the event is over: it shows what a reading takes.
  const auto past = end + cleanUp_ + kReadings * (end - begin);
  for (const std::string& client : without(before, now)) cleanUps_.emplace(past, client);
  if (!cleanUps_.empty()) timer_.set(cleanUps_.begin()->first - end);
  ask_(without(now, before));
}

void HotspotClients::cleanUpPast() {
  const auto now = Clock::now();
  std::set<std::string> forgotten;
  for (; !cleanUps_.empty() && cleanUps_.begin()->first <= now;
       cleanUps_.erase(cleanUps_.begin())) {
    forgotten.insert(cleanUps_.begin()->second);
  }
  std::set<std::string> needed(announced_.begin(), announced_.end());
  for (const auto& cleanUp : cleanUps_) needed.insert(cleanUp.second);
  std::erase_if(forgotten, [&](const std::string& client) { return !needed.contains(client); });
  ask_(forgotten);
  if (!cleanUps_.empty()) timer_.set(cleanUps_.begin()->first - now);
  announceStations();
}

}  // namespace zanhost
