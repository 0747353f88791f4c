// The kernel's word about access points: nl80211 (linux/nl80211.h), and rtnetlink for links.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>

#include "host/ZanNetlinkSocket.h"
#include "refhost/framework/EventLoop.h"

namespace zanhost {

/// Who is associated with an access point, by MAC address text in lower case; true once authorised.
using Stations = std::map<std::string, bool>;

struct AccessPoint {
  Stations stations;
  std::string lack;  ///< why it has none; empty for an access point
};

/// The station that |msg|, a message of the family nl80211, tells of. One whose driver does not
/// tell counts as authorised: otherwise no client of such a driver ever would.
[[nodiscard]] std::optional<Stations::value_type> stationOf(const nlmsghdr& msg);

/// Hears the kernel's news of stations and links, and asks it for stations. Neither needs a
/// privilege, and it does not matter which program runs the access point.
///
/// Thread: event thread.
class Nl80211 {
 public:
  /// |changed| is called when an access point may have other stations than before: one has been
  /// added or removed, a link has changed, or the kernel had to drop news. That a station has been
  /// authorised is no news of the kernel's.
  Nl80211(framework::EventLoop& loop, std::function<void()> changed);

  /// Asks for the interface |name|. Nothing when the kernel cannot tell for the moment.
  [[nodiscard]] std::optional<AccessPoint> look(const std::string& name);

 private:
  static void ready(int fd, void* cbData);

  /// Finds the family, which comes with its module, and joins its news. False without one.
  bool open();

  std::function<void()> changed_;
  ZanNetlinkSocket links_;
  ZanNetlinkSocket news_;
  ZanNetlinkSocket questions_;
  std::uint16_t family_ = 0;
};

}  // namespace zanhost
