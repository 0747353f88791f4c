// Which stations the followed access points have.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "refhost/framework/EventLoop.h"
#include "refhost/zanhost/Nl80211.h"
#include "refhost/zanhost/Timer.h"

namespace zanhost {

/// Looks at the access points some time after the last of several changes, so that all of them are
/// one report, and again after a moment while one has a station that is not authorised: nobody
/// tells when it is.
///
/// Thread: event thread.
class StationMonitor {
 public:
  /// Looks at an interface, as Nl80211::look() does.
  using Look = std::function<std::optional<AccessPoint>(const std::string& name)>;
  using Report = std::function<void(const std::set<std::string>& stations)>;

  /// |report| gets the authorised stations of all access points after each look, changed or not.
  StationMonitor(framework::EventLoop& eventLoop, Look look, Report report);

  /// Follows the interfaces of these names, present ones and those to come. The log tells what
  /// keeps one from having stations.
  void follow(const std::vector<std::string>& names);

  /// Something may have changed.
  void noteChange();

 private:
  void lookAtAll();

  Look look_;
  Report report_;
  Timer timer_;
  std::map<std::string, AccessPoint> followed_;  ///< as each was seen last
  /// When it is looked at last, while a change waits for others.
  std::optional<std::chrono::steady_clock::time_point> latest_;
};

}  // namespace zanhost
