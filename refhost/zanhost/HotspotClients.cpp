// How the client list changes, and what a client that comes back needs.
#include "refhost/zanhost/HotspotClients.h"

#include <algorithm>
#include <utility>

#include "refhost/framework/HostLog.h"
#include "refhost/framework/HostSides.h"

namespace zanhost {
namespace {

bool contains(const std::vector<std::string>& list, const std::string& client) {
  return std::find(list.begin(), list.end(), client) != list.end();
}

}  // namespace

HotspotClients::HotspotClients(Zan& zan, std::chrono::milliseconds cleanUp,
                               std::function<void()> askAgain)
    : zan_(zan),
      cleanUp_(cleanUp),
      askAgain_(std::move(askAgain)),
      timer_(HostSides::loopOf(zan.zanCom), [this] { askWhenPast(); }) {}

HotspotClients::Change HotspotClients::replaceTyped(const std::vector<std::string>& typed) {
  typed_ = typed;
  return update();
}

void HotspotClients::replaceStations(const std::set<std::string>& stations) {
  stations_ = stations;
  const auto before = HostSides::sapClientsOf(zan_.zanDsm);
  const Change change = update();
  if (HostSides::sapClientsOf(zan_.zanDsm) == before) return;
  HOST_LOG(kLogNotice, "clients: %zu now, %zu departed", change.clients, change.departed);
  dispatch();
}

HotspotClients::Change HotspotClients::update() {
  std::vector<std::string> list = typed_;
  for (const std::string& station : stations_) {
    if (!contains(typed_, station)) list.push_back(station);
  }
  auto& known = HostSides::sapClientsOf(zan_.zanDsm);
  std::swap(known, list);
  departed_.clear();
  for (const std::string& client : list) {
    if (!contains(known, client)) departed_.push_back(client);
  }
  std::erase_if(cleanUps_, [](const auto& entry) { return entry.second <= Clock::now(); });
  for (const std::string& client : known) {
    const auto cleanUp = cleanUps_.find(client);
    if (cleanUp != cleanUps_.end() && !contains(list, client)) questions_.insert(cleanUp->second);
  }
  if (!questions_.empty()) timer_.set(*questions_.begin() - Clock::now());
  return {known.size(), departed_.size()};
}

void HotspotClients::dispatch() {
  constexpr int kReadings = 4;  // two flushes, each of which may wait for somebody else's reading
  const auto begin = Clock::now();
  const ZanDsmTextList payload = HostSides::sapClientsOf(zan_.zanDsm);
  zan_.zanDsm.dispatchEvent(ZAN_DSM_EVENT_SAP_CLIENTS, &payload);
  const auto end = Clock::now();
  // The departures have been read for before the event is over: it shows what a reading takes.
  for (const std::string& client : departed_) {
    cleanUps_[client] = end + cleanUp_ + kReadings * (end - begin);
  }
}

void HotspotClients::askWhenPast() {
  const auto now = Clock::now();
  questions_.erase(questions_.begin(), questions_.upper_bound(now));
  askAgain_();
  if (!questions_.empty()) timer_.set(*questions_.begin() - now);
}

}  // namespace zanhost
