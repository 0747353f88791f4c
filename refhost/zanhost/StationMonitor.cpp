// When the access points are looked at, and what is reported.
#include "refhost/zanhost/StationMonitor.h"

#include <algorithm>
#include <utility>

#include "refhost/framework/HostLog.h"

namespace zanhost {
namespace {

using Clock = std::chrono::steady_clock;

/// Stations of an access point that ends leave one by one, milliseconds apart.
constexpr std::chrono::milliseconds kSettling{200};

/// Who makes changes without end holds back a departure no longer than this.
constexpr std::chrono::milliseconds kLongestSettling{1000};

/// Until a station that is not authorised, or what the kernel could not tell, is looked at again.
constexpr std::chrono::milliseconds kMoment{1000};

}  // namespace

StationMonitor::StationMonitor(framework::EventLoop& eventLoop, Look look, Report report)
    : look_(std::move(look)),
      report_(std::move(report)),
      timer_(eventLoop, [this] { lookAtAll(); }) {}

void StationMonitor::follow(const std::vector<std::string>& names) {
  for (const std::string& name : names) followed_[name];
  noteChange();
}

void StationMonitor::noteChange() {
  const auto now = Clock::now();
  if (!latest_) latest_ = now + kLongestSettling;
  timer_.set(std::min<Clock::duration>(kSettling, *latest_ - now));
}

void StationMonitor::lookAtAll() {
  latest_.reset();
  bool again = false;
  std::set<std::string> all;
  for (auto& [name, followed] : followed_) {
    const auto now = look_(name);
    if (now && now->lack != followed.lack && !now->lack.empty()) {
      HOST_LOG(kLogWarning, "waiting for %s: %s", name.c_str(), now->lack.c_str());
    }
    followed = now.value_or(followed);
    again = again || !now;
    for (const auto& [mac, authorised] : followed.stations) {
      if (authorised) all.insert(mac);
      again = again || !authorised;
    }
  }
  if (again) timer_.set(kMoment);
  report_(all);
}

}  // namespace zanhost
