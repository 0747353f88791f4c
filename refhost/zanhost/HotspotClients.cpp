// How the client list changes, and what a client that comes back needs.
#include "refhost/zanhost/HotspotClients.h"

#include <algorithm>
#include <utility>

#include "refhost/framework/HostLog.h"
#include "refhost/framework/HostSides.h"

namespace zanhost {
namespace {

bool contains(const HotspotClients::Names& list, const std::string& client) {
  return std::find(list.begin(), list.end(), client) != list.end();
}

}  // namespace

HotspotClients::HotspotClients(Zan& zan, std::chrono::milliseconds cleanUp,
                               std::function<void()> askAgain)
    : zan_(zan),
      cleanUp_(cleanUp),
      askAgain_(std::move(askAgain)),
      timer_(HostSides::loopOf(zan.zanCom), [this] { cleanUpPast(); }) {}

HotspotClients::Names HotspotClients::replaceTyped(const Names& typed) {
  typed_ = typed;
  return update();
}

void HotspotClients::replaceStations(const std::set<std::string>& stations) {
  stations_ = stations;
  const Names& now = HostSides::sapClientsOf(zan_.zanDsm);
  const Names before = now;
  const Names departed = update();
  if (now == before) return;
  HOST_LOG(kLogNotice, "clients: %zu now, %zu departed", now.size(), departed.size());
  dispatch(departed);
}

HotspotClients::Names HotspotClients::update() {
  Names list = typed_;
  for (const std::string& station : stations_) {
    if (!contains(typed_, station)) list.push_back(station);
  }
  auto& known = HostSides::sapClientsOf(zan_.zanDsm);
  std::swap(known, list);
  std::erase_if(list, [&](const std::string& client) { return contains(known, client); });
  return list;
}

void HotspotClients::dispatch(const Names& departed) {
  constexpr int kReadings = 4;  // two flushes, each of which may wait for somebody else's reading
  const auto begin = Clock::now();
  const ZanDsmTextList payload = HostSides::sapClientsOf(zan_.zanDsm);
  zan_.zanDsm.dispatchEvent(ZAN_DSM_EVENT_SAP_CLIENTS, &payload);
  const auto end = Clock::now();
  // The departures have been read for before the event is over: it shows what a reading takes.
  const auto past = end + cleanUp_ + kReadings * (end - begin);
  for (const std::string& client : departed) cleanUps_.emplace(past, client);
  if (!cleanUps_.empty()) timer_.set(cleanUps_.begin()->first - end);
}

void HotspotClients::cleanUpPast() {
  const auto now = Clock::now();
  bool someoneCameBack = false;
  for (; !cleanUps_.empty() && cleanUps_.begin()->first <= now;
       cleanUps_.erase(cleanUps_.begin())) {
    const auto& known = HostSides::sapClientsOf(zan_.zanDsm);
    someoneCameBack = someoneCameBack || contains(known, cleanUps_.begin()->second);
  }
  if (someoneCameBack) askAgain_();
  if (!cleanUps_.empty()) timer_.set(cleanUps_.begin()->first - now);
}

}  // namespace zanhost
