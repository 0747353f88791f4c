// Who is in the hotspot: the list that event 27 carries.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "host/Zan.h"
#include "refhost/framework/Netlink.h"
#include "refhost/zanhost/Timer.h"

namespace zanhost {

/// The union of what the command "clients" has named and of the access points' stations.
///
/// A client that comes back while its clean-up runs is forgotten at the end of that, its addresses
/// too. Once that is past the kernel is asked for its neighbours again, so that the next departure
/// finds them.
///
/// Thread: event thread.
class HotspotClients {
 public:
  /// What a clean-up of the plug-in takes, beside its readings of the table, and some.
  static constexpr std::chrono::seconds kCleanUp{11};

  /// |zan| must outlive the object.
  explicit HotspotClients(Zan& zan, std::chrono::milliseconds cleanUp = kCleanUp,
                          std::function<void()> askAgain = framework::askForNeighboursAgain);

  struct Change {
    std::size_t clients;
    std::size_t departed;
  };

  /// Takes other names for those that were typed before. dispatch() is the caller's.
  Change replaceTyped(const std::vector<std::string>& typed);

  /// Takes other stations for those of before, and dispatches the list if that changes it.
  void replaceStations(const std::set<std::string>& stations);

  /// Dispatches event 27.
  void dispatch();

 private:
  using Clock = std::chrono::steady_clock;

  Change update();
  void askWhenPast();

  Zan& zan_;
  std::chrono::milliseconds cleanUp_;
  std::function<void()> askAgain_;
  Timer timer_;
  std::vector<std::string> typed_;
  std::set<std::string> stations_;
  std::vector<std::string> departed_;                  ///< with the next event
  std::map<std::string, Clock::time_point> cleanUps_;  ///< when that of a client is past
  std::set<Clock::time_point> questions_;              ///< when the kernel is to be asked
};

}  // namespace zanhost
