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
/// The plug-in forgets a client's addresses at the end of its clean-up, also when it has come back
/// meanwhile, and the kernel need not announce them again. So it is asked for them when a client
/// comes, and when a clean-up is past whose client is there, or has left once more since.
///
/// Thread: event thread.
class HotspotClients {
 public:
  using Ask = std::function<void(const std::set<std::string>& macs)>;

  /// What a clean-up of the plug-in takes, beside its readings of the table, and some.
  static constexpr std::chrono::seconds kCleanUp{11};

  /// |zan| must outlive the object.
  explicit HotspotClients(Zan& zan, std::chrono::milliseconds cleanUp = kCleanUp,
                          Ask ask = framework::askForNeighbours);

  using Names = std::vector<std::string>;

  static constexpr std::size_t kMostCleanUps = 200;

  /// Takes other names for those that were typed before. Returns how many clients depart with that;
  /// the caller dispatches it.
  [[nodiscard]] std::size_t replaceTyped(const Names& typed);

  /// Takes other stations for those of before, and dispatches the list if that changes it. While
  /// kMostCleanUps are under way, that waits: each is a thread of the plug-in's.
  void replaceStations(const std::set<std::string>& stations);

  /// Dispatches event 27.
  void dispatch();

 private:
  using Clock = std::chrono::steady_clock;

  void update();
  void announceStations();
  void cleanUpPast();

  Zan& zan_;
  std::chrono::milliseconds cleanUp_;
  Ask ask_;
  Timer timer_;  ///< of the first clean-up to be past
  Names typed_;
  std::set<std::string> stations_;
  Names announced_;                                         ///< with the last event
  std::multimap<Clock::time_point, std::string> cleanUps_;  ///< clients, by when theirs is past
};

}  // namespace zanhost
