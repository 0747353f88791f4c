// What the reference host knows of itself and of the kernel, at one moment.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "host/Zan.h"
#include "refhost/parent/Privileges.h"

namespace zanhost {

struct HostStatus {
  /// A mobile-data interface, as the monitor and the modem have it.
  struct Interface {
    std::string name;
    bool connected;
    std::vector<int> apns;
    std::string dormancy;  ///< "dormant" or "active"
    bool filterMode;
    std::optional<HalFilterInfo> filters;
    std::optional<HalFilterInfo> listenFilters;
  };

  std::vector<std::string> clients;  ///< the list that event 27 carried last
  int kernelNeighbours;              ///< entries of the kernel's table; -1: not readable
  std::uint64_t notifications;       ///< netlink messages handed to the plug-in
  std::uint64_t overruns;            ///< times that the kernel had to drop some
  std::uint64_t requested;           ///< conntrack deletions, see DeletionCounters
  std::uint64_t deleted;
  std::uint64_t alreadyGone;
  std::uint64_t refused;
  bool tethering;
  std::vector<Interface> interfaces;
  parent::Privileges privileges;

  /// One line:
  /// {"clients":[...],"neighbours":{"kernel":N,"events":N,"overruns":N},
  ///  "deletions":{"requested":N,"deleted":N,"alreadyGone":N,"refused":N},
  ///  "tethering":false,"interfaces":{NAME:{"connected":true,"apns":[0],"dormancy":"dormant",
  ///  "filterMode":true,"filters":RECORD,"listenFilters":null},...},
  ///  "privileges":{"pid":N,"uid":N,"gid":N,"capabilities":[...]}}, a record being null or
  /// {"wwanStatus":N,"text1":"...","text2":"...","icmpFilterDisabled":N}
  [[nodiscard]] std::string json() const;

  /// The same for reading, a line each, without a final newline.
  [[nodiscard]] std::string text() const;
};

/// Event thread.
[[nodiscard]] HostStatus readHostStatus(Zan& zan);

}  // namespace zanhost
