// What stands behind the host objects' interfaces, for the reference host's own use.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "host/ZanCom.h"
#include "host/ZanDsm.h"
#include "host/ZanRix.h"
#include "refhost/framework/EventLoop.h"
#include "refhost/framework/Modem.h"

struct ZanCom::HostSide {
  framework::EventLoop loop;
};

struct ZanRix::HostSide {
  framework::Modem modem;
};

struct ZanDsm::HostSide {
  std::map<std::string, _ZanDsmWwanInfoType> wwanInfo;
  std::vector<std::string> sapClients;  ///< the list that event 27 carried last
};

/// The way there, which the host objects open to nobody else.
struct HostSides {
  static framework::EventLoop& loopOf(ZanCom& com) { return com.side->loop; }
  static framework::Modem& modemOf(ZanRix& rix) { return rix.side->modem; }
  static auto& wwanInfoOf(ZanDsm& dsm) { return dsm.side->wwanInfo; }
  static auto& sapClientsOf(ZanDsm& dsm) { return dsm.side->sapClients; }
};
